// The engines' reading of the one-line command documents they receive, and the escaping of the
// texts they put into their own event documents.
#ifndef KTSIM_COMMAND_H
#define KTSIM_COMMAND_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace ktsim {

// One element of a command document. Plain value.
struct Node {
  std::string name;
  std::vector<std::pair<std::string, std::string>> attributes;
  std::string text;  // character data directly inside the element, entities decoded
  std::vector<std::unique_ptr<Node>> children;

  // First direct child of that name, or nullptr.
  const Node* Child(const std::string& child) const;
  // Value of the attribute, or nullptr when absent.
  const std::string* Attribute(const std::string& attribute) const;
};

// Reads a document made of one element (the engines accept nothing else). Comments, processing
// instructions and declarations are refused: the product never sends them. Nesting is bounded, so
// hostile input cannot exhaust the stack or the heap. Returns nullptr with a reason in `error`.
std::unique_ptr<Node> ParseCommand(const std::string& text, std::string* error);

// `text` with & < > " escaped, for element texts and attribute values of event documents.
std::string Escape(const std::string& text);

// Pieces of event documents: <name>text</name> (escaped) or <name>number</name>, and an event about
// one stream, <event name="event"><stream id="id">inner</stream></event> (id escaped; an empty
// inner makes the stream element empty).
std::string Tag(const char* name, const std::string& text);
std::string Tag(const char* name, long number);
std::string StreamEvent(const char* event, const std::string& id, const std::string& inner);

// Reading commands: the text of a child element, or nullptr; a refusal (why into *error, false);
// a "true" / "false" element into *value, refused as "Invalid value '<text>' for <name>" otherwise.
const std::string* TextOf(const Node& node, const char* child);
bool Fail(std::string* error, const std::string& why);
bool ReadFlag(const Node& node, bool* value, std::string* error);

}  // namespace ktsim

#endif  // KTSIM_COMMAND_H
