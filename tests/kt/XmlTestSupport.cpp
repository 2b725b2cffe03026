#include "XmlTestSupport.h"

#include <cstdio>
#include <utility>
#include <vector>

namespace xmltest {

namespace {

std::string Quote(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\0') {
      out += "\\0";
    } else if (byte < 0x20 || byte >= 0x7f) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02x", byte);
      out += hex;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

void DescribeStart(std::string& out, const kt::XMLElement& e) {
  static const char* const kMarks[] = {"", "?", "!", "#"};
  out += kMarks[e.type];
  out += e.name;
  if (e.HasAttributes()) {
    out += '[';
    for (std::size_t i = 0; i < e.attributes.size(); ++i) {
      if (i != 0) out += ',';
      out += e.attributes[i]->name + "=" + e.attributes[i]->value;
    }
    out += ']';
  }
  if (!e.value.empty()) out += "=" + Quote(e.value);
  if (e.HasElements()) out += '(';
}

}  // namespace

std::string Describe(const kt::XMLElement& root) {
  std::string out;
  DescribeStart(out, root);
  std::vector<std::pair<const kt::XMLElement*, std::size_t>> open;
  if (root.HasElements()) open.emplace_back(&root, 0);
  while (!open.empty()) {
    auto& [element, next] = open.back();
    if (next == element->children.size()) {
      out += ')';
      open.pop_back();
      continue;
    }
    if (next != 0) out += ' ';
    const kt::XMLElement* child = element->children[next++];
    DescribeStart(out, *child);
    if (child->HasElements()) open.emplace_back(child, 0);
  }
  return out;
}

}  // namespace xmltest
