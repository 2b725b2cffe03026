#include "meeting/EventDocument.h"

#include <new>

namespace Telmora {

namespace {

// Byte classes of the canonical shape.
enum : unsigned char { kNameStart = 1, kName = 2, kText = 4, kValue = 8 };

struct ByteTable {
  unsigned char bits[256];
  constexpr ByteTable() : bits() {
    for (int c = 0; c < 256; ++c) {
      unsigned char b = 0;
      const bool alnum = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
      if (alnum) b |= kNameStart | kName;
      if (c == '_') b |= kName;
      if (c >= 0x20 && c < 0x7f && c != '<' && c != '&') {
        b |= kText;
        if (c != '"') b |= kValue;
      }
      bits[c] = b;
    }
  }
};

constexpr ByteTable kBytes;

inline bool is(char c, unsigned char bits) {
  return (kBytes.bits[static_cast<unsigned char>(c)] & bits) != 0;
}

inline char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

}  // namespace

bool FlatEvent::equalsIgnoringCase(const char* scanned, const char* name, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) {
    if (lower(scanned[i]) != lower(name[i])) return false;
  }
  return true;
}

namespace {

using Element = FlatEvent::Element;

// Where a scan stands: the text left, the slots it fills, and the elements still open.
struct Cursor {
  const char* p;
  const char* end;
  Element* elements;                    // FlatEvent's element slots
  FlatEvent::Attribute* attributes;     // and attribute slots
  Element* open[FlatEvent::kMaxDepth];  // the elements whose content is being read, outermost first
  Element* last[FlatEvent::kMaxDepth];  // the last child of each open element so far
  std::size_t depth;
  std::size_t elementCount;
  std::size_t attributeCount;
};

// What a part of the scan found: a refusal, the whole document, or more to read.
enum class Step { kRefused, kDone, kMore };

// Attributes, each after exactly one blank.
inline bool scanAttributes(Cursor& c, Element& e) {
  while (c.p != c.end && *c.p == ' ') {
    ++c.p;
    if (c.p == c.end || !is(*c.p, kNameStart) || c.attributeCount == FlatEvent::kMaxAttributes) {
      return false;
    }
    const char* attributeName = c.p;
    while (c.p != c.end && is(*c.p, kName)) ++c.p;
    FlatEvent::Attribute& a = *new (&c.attributes[c.attributeCount++]) FlatEvent::Attribute{
        Text{attributeName, static_cast<std::size_t>(c.p - attributeName)}, Text{}};
    if (c.end - c.p < 2 || c.p[0] != '=' || c.p[1] != '"') return false;
    c.p += 2;
    const char* value = c.p;
    while (c.p != c.end && is(*c.p, kValue)) ++c.p;
    if (c.p == c.end || *c.p != '"') return false;
    a.value = Text{value, static_cast<std::size_t>(c.p - value)};
    ++c.p;
    ++e.attributeCount;
  }
  return true;
}

// At "<" of a start tag: the element's name and attributes, the element linked to its parent and,
// after "/>" or ">", either the document's end or the element opened for its content.
inline Step scanStartTag(Cursor& c) {
  ++c.p;
  if (c.p == c.end || !is(*c.p, kNameStart) || c.elementCount == FlatEvent::kMaxElements) {
    return Step::kRefused;
  }
  const char* name = c.p;
  while (c.p != c.end && is(*c.p, kName)) ++c.p;
  Element& e =
      *new (&c.elements[c.elementCount++]) Element{Text{name, static_cast<std::size_t>(c.p - name)},
                                                   Text{},
                                                   nullptr,
                                                   nullptr,
                                                   c.attributeCount,
                                                   0};
  if (c.depth > 0) {
    Element* parent = c.open[c.depth - 1];
    if (c.last[c.depth - 1] == nullptr) {
      parent->firstChild = &e;
    } else {
      c.last[c.depth - 1]->nextSibling = &e;
    }
    c.last[c.depth - 1] = &e;
  }
  if (!scanAttributes(c, e) || c.p == c.end) return Step::kRefused;
  if (*c.p == '/') {
    // An empty-element tag; its empty text ends at the "/".
    if (c.end - c.p < 2 || c.p[1] != '>') return Step::kRefused;
    e.value = Text{c.p, 0};
    c.p += 2;
    if (c.depth == 0) return c.p == c.end ? Step::kDone : Step::kRefused;
    return Step::kMore;
  }
  if (*c.p != '>' || c.depth == FlatEvent::kMaxDepth) return Step::kRefused;
  ++c.p;
  c.open[c.depth] = &e;
  c.last[c.depth] = nullptr;
  ++c.depth;
  return Step::kMore;
}

// Content of the innermost open element and the end tags that follow, up to the next start tag
// (kMore, at its "<") or the end of the document.
inline Step scanContent(Cursor& c) {
  for (;;) {
    Element& current = *c.open[c.depth - 1];
    const char* content = c.p;
    while (c.p != c.end && is(*c.p, kText)) ++c.p;
    if (c.p == c.end || *c.p != '<') return Step::kRefused;
    const bool hasText = c.p != content;
    if (hasText) {
      if (c.last[c.depth - 1] != nullptr) return Step::kRefused;  // text after a child
      current.value = Text{content, static_cast<std::size_t>(c.p - content)};
    } else if (c.last[c.depth - 1] == nullptr) {
      current.value = Text{c.p, 0};  // no text: it ends at the "<"
    }
    if (c.end - c.p < 2 || c.p[1] != '/') {
      return hasText ? Step::kRefused : Step::kMore;  // no child after text
    }
    // The end tag repeats the open name byte for byte.
    c.p += 2;
    const std::size_t n = current.name.size;
    if (static_cast<std::size_t>(c.end - c.p) < n + 1 || c.p[n] != '>') return Step::kRefused;
    for (std::size_t i = 0; i < n; ++i) {
      if (c.p[i] != current.name.data[i]) return Step::kRefused;
    }
    c.p += n + 1;
    --c.depth;
    if (c.depth == 0) return c.p == c.end ? Step::kDone : Step::kRefused;
  }
}

}  // namespace

bool FlatEvent::scan(const char* text, std::size_t length) {
  Cursor c;
  c.p = text;
  c.end = text + length;
  c.elements = elements_;
  c.attributes = attributes_;
  c.depth = c.elementCount = c.attributeCount = 0;
  if (c.p == c.end || *c.p != '<') return false;
  for (;;) {
    Step step = scanStartTag(c);
    if (step == Step::kMore) step = scanContent(c);
    if (step != Step::kMore) return step == Step::kDone;
  }
}

}  // namespace Telmora
