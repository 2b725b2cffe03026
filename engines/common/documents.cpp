#include "documents.h"

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "numbers.h"

namespace ktengine {

namespace {

constexpr size_t kMaxDepth = 32;

bool IsNameChar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' || c == '.' ||
         c == ':';
}

// Decodes the five predefined entities and numeric references below 128; an ampersand that
// starts none of them is kept as it is (the product inserts texts unescaped).
std::string Decode(const std::string& raw) {
  static const struct {
    const char* entity;
    char c;
  } kEntities[] = {{"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
  std::string out;
  out.reserve(raw.size());
  for (size_t i = 0; i < raw.size();) {
    if (raw[i] == '&') {
      bool decoded = false;
      for (const auto& e : kEntities) {
        const size_t n = std::strlen(e.entity);
        if (raw.compare(i, n, e.entity) == 0) {
          out += e.c;
          i += n;
          decoded = true;
          break;
        }
      }
      if (!decoded && raw.compare(i, 2, "&#") == 0) {
        const size_t end = raw.find(';', i);
        if (end != std::string::npos && end - i <= 6) {
          const std::string digits = raw.substr(i + 2, end - i - 2);
          const bool hex = !digits.empty() && (digits[0] == 'x' || digits[0] == 'X');
          char* stop = nullptr;
          const long value = std::strtol(digits.c_str() + (hex ? 1 : 0), &stop, hex ? 16 : 10);
          if (stop != nullptr && *stop == '\0' && value > 0 && value < 128 && digits.size() > 0) {
            out += static_cast<char>(value);
            i = end + 1;
            decoded = true;
          }
        }
      }
      if (decoded) continue;
    }
    out += raw[i++];
  }
  return out;
}

class Reader {
 public:
  explicit Reader(const std::string& text) : s_(text) {}

  std::unique_ptr<Node> Read(std::string* error) {
    std::vector<Node*> open;
    std::unique_ptr<Node> root;
    SkipSpace();
    while (pos_ < s_.size()) {
      if (s_[pos_] != '<') {
        const size_t end = s_.find('<', pos_);
        const std::string raw = s_.substr(pos_, end == std::string::npos ? end : end - pos_);
        if (open.empty()) {
          if (raw.find_first_not_of(" \t\r\n") != std::string::npos) {
            return Fail(error, "text outside the document element");
          }
        } else {
          open.back()->text += Decode(raw);
        }
        pos_ = end == std::string::npos ? s_.size() : end;
        continue;
      }
      ++pos_;
      if (pos_ < s_.size() && s_[pos_] == '/') {
        ++pos_;
        const std::string name = Name();
        SkipSpace();
        if (!Eat('>')) return Fail(error, "malformed end tag");
        if (open.empty() || open.back()->name != name) {
          return Fail(error, "end tag </" + name + "> does not match");
        }
        open.pop_back();
        if (open.empty()) break;
        continue;
      }
      if (pos_ < s_.size() && (s_[pos_] == '!' || s_[pos_] == '?')) {
        return Fail(error, "declarations, comments and CDATA are not accepted");
      }
      if (root && open.empty()) return Fail(error, "more than one document element");
      if (open.size() >= kMaxDepth) return Fail(error, "nested too deeply");
      auto node = std::make_unique<Node>();
      node->name = Name();
      if (node->name.empty()) return Fail(error, "missing element name");
      for (;;) {
        const bool spaced = SkipSpace();
        if (Eat('/')) {
          if (!Eat('>')) return Fail(error, "malformed empty-element tag");
          Attach(std::move(node), &open, &root, false);
          break;
        }
        if (Eat('>')) {
          Attach(std::move(node), &open, &root, true);
          break;
        }
        const std::string attribute = Name();
        if (attribute.empty() || !spaced) return Fail(error, "malformed attribute");
        SkipSpace();
        if (!Eat('=')) return Fail(error, "attribute " + attribute + " has no value");
        SkipSpace();
        if (pos_ >= s_.size() || (s_[pos_] != '"' && s_[pos_] != '\'')) {
          return Fail(error, "attribute " + attribute + " is not quoted");
        }
        const char quote = s_[pos_++];
        const size_t end = s_.find(quote, pos_);
        if (end == std::string::npos) return Fail(error, "unterminated attribute value");
        node->attributes.emplace_back(attribute, Decode(s_.substr(pos_, end - pos_)));
        pos_ = end + 1;
      }
      if (open.empty() && root) break;  // an empty document element: done
    }
    if (!root) return Fail(error, "no document element");
    if (!open.empty()) return Fail(error, "element <" + open.back()->name + "> is not closed");
    SkipSpace();
    if (pos_ < s_.size()) return Fail(error, "content after the document element");
    return root;
  }

 private:
  static std::unique_ptr<Node> Fail(std::string* error, const std::string& why) {
    if (error) *error = why;
    return nullptr;
  }

  static void Attach(std::unique_ptr<Node> node, std::vector<Node*>* open,
                     std::unique_ptr<Node>* root, bool stays_open) {
    Node* raw = node.get();
    if (open->empty()) {
      *root = std::move(node);
    } else {
      open->back()->children.push_back(std::move(node));
    }
    if (stays_open) open->push_back(raw);
  }

  bool SkipSpace() {
    const size_t start = pos_;
    while (pos_ < s_.size() && std::isspace(static_cast<unsigned char>(s_[pos_]))) ++pos_;
    return pos_ != start;
  }

  bool Eat(char c) {
    if (pos_ < s_.size() && s_[pos_] == c) {
      ++pos_;
      return true;
    }
    return false;
  }

  std::string Name() {
    const size_t start = pos_;
    while (pos_ < s_.size() && IsNameChar(s_[pos_])) ++pos_;
    return s_.substr(start, pos_ - start);
  }

  const std::string& s_;
  size_t pos_ = 0;
};

}  // namespace

const Node* Node::Child(const std::string& child) const {
  for (const auto& c : children) {
    if (c->name == child) return c.get();
  }
  return nullptr;
}

const std::string* Node::Attribute(const std::string& attribute) const {
  for (const auto& a : attributes) {
    if (a.first == attribute) return &a.second;
  }
  return nullptr;
}

std::unique_ptr<Node> ParseCommand(const std::string& text, std::string* error) {
  return Reader(text).Read(error);
}

std::string Escape(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string Tag(const char* name, const std::string& text) {
  return std::string("<") + name + ">" + Escape(text) + "</" + name + ">";
}

std::string Tag(const char* name, long number) {
  return std::string("<") + name + ">" + std::to_string(number) + "</" + name + ">";
}

std::string StreamEvent(const char* event, const std::string& id, const std::string& inner) {
  const std::string open = std::string("<event name=\"") + event + "\"><stream id=\"" + Escape(id);
  if (inner.empty()) return open + "\"/></event>";
  return open + "\">" + inner + "</stream></event>";
}

const std::string* TextOf(const Node& node, const char* child) {
  const Node* c = node.Child(child);
  return c ? &c->text : nullptr;
}

bool Fail(std::string* error, const std::string& why) {
  *error = why;
  return false;
}

std::string BufferReadyEvent(const std::string& id, const void* frame) {
  return "<event name=\"video_stream_buffer_ready\"><stream id=\"" + Escape(id) +
         "\" pixel_buffer=\"" +
         std::to_string(static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(frame))) +
         "\"/></event>";
}

bool ReadFlag(const Node& node, bool* value, std::string* error) {
  if (node.text == "true" || node.text == "false") {
    *value = node.text == "true";
    return true;
  }
  return Fail(error, "Invalid value '" + node.text + "' for " + node.name);
}

const std::string* AudioStreamId(const Node& stream, std::string* error) {
  const std::string* id = stream.Attribute("id");
  if (stream.name != "stream" || id == nullptr) {
    Fail(error, "Malformed audio stream element");
    return nullptr;
  }
  return id;
}

bool ReadAudioStreamVolume(const Node& stream, const std::string& id, long* volume,
                           std::string* error) {
  const std::string* text = TextOf(stream, "volume");
  if (text == nullptr) return Fail(error, "Missing volume for audio stream '" + id + "'");
  if (!ReadInt(*text, 0, 255, volume)) return Fail(error, "Invalid volume '" + *text + "'");
  return true;
}

bool IsAudioSwitch(const std::string& name) {
  return name == "tones" || name == "conditions" || name == "aec";
}

bool ReadSwitch(const Node& node, bool* on, std::string* error) {
  const std::string* enabled = node.Attribute("enabled");
  if (enabled == nullptr || (*enabled != "true" && *enabled != "false")) {
    return Fail(error, "Invalid or missing 'enabled' on <" + node.name + ">");
  }
  *on = *enabled == "true";
  return true;
}

}  // namespace ktengine
