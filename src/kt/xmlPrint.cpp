// The two printers: compact text (conversion to std::string) and indented
// stream output. Both walk the tree with an explicit stack, so any nesting
// depth prints.
#include <ostream>
#include <string>
#include <vector>

#include "kt/xml.h"

namespace kt {

namespace {

// An element whose children are being printed, and the next child to print.
struct Open {
  const XMLElement* element;
  std::size_t next;
};

void AppendEncoded(std::string& out, const std::string& text) {
  for (const char c : text) {
    switch (c) {
      case '"':
        out += "&quot;";
        break;
      case '&':
        out += "&amp;";
        break;
      case '\'':
        out += "&apos;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      default:
        out += c;
    }
  }
}

// "<name attr=""v"">encoded value" for `e`; the children and the end tag
// follow.
void AppendCompactStart(std::string& out, const XMLElement& e) {
  out += '<';
  out += e.name;
  for (const XMLAttribute* a : e.attributes) {
    out += ' ';
    out += a->name;
    out += "=\"\"";
    out += a->value;
    out += "\"\"";
  }
  out += '>';
  AppendEncoded(out, e.value);
}

void AppendCompactEnd(std::string& out, const XMLElement& e) {
  out += "</";
  out += e.name;
  out += '>';
}

}  // namespace

std::string XMLElement::xml_encode(std::string text) {
  std::string out;
  out.reserve(text.size());
  AppendEncoded(out, text);
  return out;
}

XMLElement::operator std::string() const {
  std::string out;
  AppendCompactStart(out, *this);
  std::vector<Open> open{{this, 0}};
  while (!open.empty()) {
    Open& top = open.back();
    if (top.next < top.element->children.size()) {
      const XMLElement* child = top.element->children[top.next++];
      AppendCompactStart(out, *child);
      open.push_back({child, 0});
    } else {
      AppendCompactEnd(out, *top.element);
      open.pop_back();
    }
  }
  return out;
}

void PrintAttribute::operator()(const XMLAttribute* a) const {
  os << " " << a->name << "=\"" << a->value << "\"";
}

void PrintElement::operator()(const XMLElement* root) const {
  // Writes the start of `e` at `indent`; true when its children follow.
  auto start = [this](const XMLElement& e, std::size_t indent) {
    os << std::string(indent, ' ');
    if (e.type == Declaration) {
      os << "<?xml";
    } else {
      os << "<" << e.name;
    }
    const PrintAttribute attribute(os);
    for (const XMLAttribute* a : e.attributes) attribute(a);
    if (e.HasElements()) {
      os << (e.type == Declaration ? "?>" : ">\n");
      return true;
    }
    if (e.type == Declaration) {
      os << "?>";
    } else {
      os << ">" << XMLElement::xml_encode(e.value) << "</" << e.name << ">\n";
    }
    return false;
  };
  auto end = [this](const XMLElement& e, std::size_t indent) {
    os << std::string(indent, ' ') << "</" << e.name << ">\n";
  };

  if (!start(*root, depth)) return;
  std::vector<Open> open{{root, 0}};
  while (!open.empty()) {
    Open& top = open.back();
    const std::size_t indent = depth + open.size() - 1;
    if (top.next < top.element->children.size()) {
      const XMLElement* child = top.element->children[top.next++];
      if (start(*child, indent + 1)) open.push_back({child, 0});
    } else {
      end(*top.element, indent);
      open.pop_back();
    }
  }
}

std::ostream& operator<<(std::ostream& os, const XMLElement& e) {
  PrintElement(os, 0)(e);
  return os;
}

}  // namespace kt
