// The two ways an event handler reads an event document, with one interface so that a handler is
// written once and runs on either:
//  - TreeDocument: the parsed kt::XMLElement tree (the reference);
//  - FlatEvent: a scan of the engine's text in place, for documents in the engines' canonical shape
//    (no allocation, no tree). FlatEvent::scan accepts a text only when the tree parser would
//    build exactly the structure it records, so every lookup answers as the tree's would.
//
// The interface of a document type D: D::Node (a pointer, null when missing);
// child(node, name) -> the first direct child whose name equals name ignoring ASCII case (as
// kt::XMLElement::FindElementByName); attribute(node, name, &text) -> true and the value of the
// first attribute of that name ignoring case (as FindAttributeByName); text(node) -> the element's
// character content.
//
// Thread safety: a document is used by one thread at a time; nothing here is shared.
#ifndef CONVOKE_MEETING_EVENTDOCUMENT_H
#define CONVOKE_MEETING_EVENTDOCUMENT_H

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kt/xml.h"

namespace Telmora {

// A text inside a document: a view of size bytes at data. data is never null, and the byte after
// the text (data[size]) is one that ends a number for atoi/atoll (a NUL, "<", "/" or a double
// quote), so number() reads exactly the text's own digits.
struct Text {
  const char* data = "";
  std::size_t size = 0;

  std::string str() const { return std::string(data, size); }
  bool equals(const char* literal) const {
    return std::strlen(literal) == size && std::memcmp(data, literal, size) == 0;
  }
  // atoi / atoll of the text. A text of one to nine plain digits (all the engines send) is read
  // here; anything else (signs, blanks, overflow) is left to atoi itself.
  int number() const {
    if (size == 0 || size > 9) return std::atoi(data);
    int value = 0;
    for (std::size_t i = 0; i < size; ++i) {
      const unsigned digit = static_cast<unsigned char>(data[i]) - static_cast<unsigned>('0');
      if (digit > 9) return std::atoi(data);
      value = value * 10 + static_cast<int>(digit);
    }
    return value;
  }
  long long longNumber() const { return std::atoll(data); }
};

// The kt::XMLElement tree.
class TreeDocument {
 public:
  using Node = const kt::XMLElement*;

  Node child(Node parent, const char* name) const { return parent->FindElementByName(name); }
  bool attribute(Node element, const char* name, Text& out) const {
    const kt::XMLAttribute* attribute = element->FindAttributeByName(name);
    if (attribute == nullptr) return false;
    out = Text{attribute->value.c_str(), attribute->value.size()};
    return true;
  }
  Text text(Node element) const { return Text{element->value.c_str(), element->value.size()}; }
};

// A scan of one event document in the canonical shape, over the caller's buffer (which must outlive
// the scan's use). The shape, in which the tree parser's result is certain:
//   document  = element, nothing before or after it
//   element   = "<" name *(" " attribute) ("/>" | ">" content "</" name ">")
//   name      = a letter or digit, then letters, digits and "_"; the end tag repeats the bytes
//   attribute = name "=" '"' *(printable ASCII but '"', "<", "&") '"'
//   content   = *element | *(printable ASCII but "<", "&")   (text or children, never both)
// Anything else (a declaration, comment, CDATA, entity, white space between tags, a control or
// non-ASCII byte, a mismatched end tag, more than kMaxElements elements, kMaxAttributes attributes
// or kMaxDepth levels) is refused, and the caller parses the text into a tree instead.
class FlatEvent {
 public:
  static constexpr std::size_t kMaxElements = 24;
  static constexpr std::size_t kMaxAttributes = 24;
  static constexpr std::size_t kMaxDepth = 6;

  struct Attribute {
    Text name;
    Text value;
  };
  struct Element {
    Text name;
    Text value;
    const Element* firstChild;
    const Element* nextSibling;
    std::size_t firstAttribute;
    std::size_t attributeCount;
  };
  using Node = const Element*;

  // True when text[0, length) is one document in the canonical shape; the document is then
  // readable through root() and the lookups until the next scan.
  bool scan(const char* text, std::size_t length);

  // The document element (valid after a successful scan).
  Node root() const { return &elements_[0]; }

  Node child(Node parent, const char* name) const {
    for (Node e = parent->firstChild; e != nullptr; e = e->nextSibling) {
      if (nameEquals(e->name, name)) return e;
    }
    return nullptr;
  }
  bool attribute(Node element, const char* name, Text& out) const {
    for (std::size_t i = 0; i < element->attributeCount; ++i) {
      const Attribute& a = attributes_[element->firstAttribute + i];
      if (nameEquals(a.name, name)) {
        out = a.value;
        return true;
      }
    }
    return false;
  }
  Text text(Node element) const { return element->value; }

  // A scanned name equals a lookup name ignoring ASCII case (scanned names are ASCII). Inline, so
  // that a literal name's length is known at compile time: most candidates are refused by their
  // length alone, and a name in the engines' own case by one fixed-size comparison.
  static bool nameEquals(const Text& scanned, const char* name) {
    const std::size_t size = std::char_traits<char>::length(name);
    if (size != scanned.size) return false;
    return std::memcmp(scanned.data, name, size) == 0 ||
           equalsIgnoringCase(scanned.data, name, size);
  }

  FlatEvent() {}  // the element and attribute slots are constructed by scan, as it fills them

 private:
  static bool equalsIgnoringCase(const char* scanned, const char* name, std::size_t size);

  // Left unconstructed until scan fills a slot, so a scan costs what the document holds, not the
  // capacity.
  union {
    Element elements_[kMaxElements];
  };
  union {
    Attribute attributes_[kMaxAttributes];
  };
};

}  // namespace Telmora

#endif  // CONVOKE_MEETING_EVENTDOCUMENT_H
