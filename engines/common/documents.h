// Documents, for every engine family: the reading of the one-line command documents the engines
// receive (SetRoot), and the pieces of the event documents they send (escaped texts, tags, stream
// events). Plain functions, callable from any thread.
#ifndef KTENGINE_DOCUMENTS_H
#define KTENGINE_DOCUMENTS_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace ktengine {

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
// <event name="video_stream_buffer_ready"><stream id="id" pixel_buffer="address"/></event>: the
// frame descriptor at `frame` now holds the stream's pictures.
std::string BufferReadyEvent(const std::string& id, const void* frame);

// Reading commands: the text of a child element, or nullptr; a refusal (why into *error, false);
// a "true" / "false" element into *value, refused as "Invalid value '<text>' for <name>" otherwise.
const std::string* TextOf(const Node& node, const char* child);
bool Fail(std::string* error, const std::string& why);
bool ReadFlag(const Node& node, bool* value, std::string* error);
// The switch elements of an audio command (<tones enabled="true"/>, likewise conditions and aec):
// whether `node` is one of them, and its setting into *on, refused as "Invalid or missing
// 'enabled' on <name>" when it is neither "true" nor "false".
bool IsAudioSwitch(const std::string& name);
// Calls `item` on each child of a list element (<input>, <devices>, <streams>) until one refuses;
// an empty list is refused as "Empty <name> element".
template <typename Item>
bool ForEachItem(const Node& list, std::string* error, Item item) {
  if (list.children.empty()) return Fail(error, "Empty <" + list.name + "> element");
  for (const auto& child : list.children) {
    if (!item(*child)) return false;
  }
  return true;
}
// An audio stream's volume (<stream id="id"><volume>0..255</volume></stream>), read in two steps
// so that the caller can check the stream in between: its id (nullptr, refused as "Malformed audio
// stream element", when it is not such an element), then its volume.
const std::string* AudioStreamId(const Node& stream, std::string* error);
bool ReadAudioStreamVolume(const Node& stream, const std::string& id, long* volume,
                           std::string* error);
bool ReadSwitch(const Node& node, bool* on, std::string* error);

}  // namespace ktengine

#endif  // KTENGINE_DOCUMENTS_H
