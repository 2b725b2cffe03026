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

bool FlatEvent::scan(const char* text, std::size_t length) {
  const char* p = text;
  const char* const end = text + length;
  Element* open[kMaxDepth];  // the elements whose content is being read, outermost first
  Element* last[kMaxDepth];  // the last child of each open element so far
  std::size_t depth = 0;
  std::size_t elementCount = 0;
  std::size_t attributeCount = 0;

  if (p == end || *p != '<') return false;
  for (;;) {
    // At "<" of a start tag.
    ++p;
    if (p == end || !is(*p, kNameStart) || elementCount == kMaxElements) return false;
    const char* name = p;
    while (p != end && is(*p, kName)) ++p;
    Element& e =
        *new (&elements_[elementCount++]) Element{Text{name, static_cast<std::size_t>(p - name)},
                                                  Text{},
                                                  nullptr,
                                                  nullptr,
                                                  attributeCount,
                                                  0};
    if (depth > 0) {
      Element* parent = open[depth - 1];
      if (last[depth - 1] == nullptr) {
        parent->firstChild = &e;
      } else {
        last[depth - 1]->nextSibling = &e;
      }
      last[depth - 1] = &e;
    }
    // Attributes, each after exactly one blank.
    while (p != end && *p == ' ') {
      ++p;
      if (p == end || !is(*p, kNameStart) || attributeCount == kMaxAttributes) return false;
      const char* attributeName = p;
      while (p != end && is(*p, kName)) ++p;
      Attribute& a = *new (&attributes_[attributeCount++]) Attribute{
          Text{attributeName, static_cast<std::size_t>(p - attributeName)}, Text{}};
      if (end - p < 2 || p[0] != '=' || p[1] != '"') return false;
      p += 2;
      const char* value = p;
      while (p != end && is(*p, kValue)) ++p;
      if (p == end || *p != '"') return false;
      a.value = Text{value, static_cast<std::size_t>(p - value)};
      ++p;
      ++e.attributeCount;
    }
    if (p == end) return false;
    if (*p == '/') {
      // An empty-element tag; its empty text ends at the "/".
      if (end - p < 2 || p[1] != '>') return false;
      e.value = Text{p, 0};
      p += 2;
      if (depth == 0) return p == end;
    } else if (*p == '>') {
      ++p;
      if (depth == kMaxDepth) return false;
      open[depth] = &e;
      last[depth] = nullptr;
      ++depth;
    } else {
      return false;
    }

    // Content of the innermost open element, up to the next start tag (continue the outer loop)
    // or the end of the document.
    for (;;) {
      Element& current = *open[depth - 1];
      const char* content = p;
      while (p != end && is(*p, kText)) ++p;
      if (p == end || *p != '<') return false;
      const bool hasText = p != content;
      if (hasText) {
        if (last[depth - 1] != nullptr) return false;  // text after a child
        current.value = Text{content, static_cast<std::size_t>(p - content)};
      } else if (last[depth - 1] == nullptr) {
        current.value = Text{p, 0};  // no text: it ends at the "<"
      }
      if (end - p < 2 || p[1] != '/') {
        if (hasText) return false;  // a child after text
        break;
      }
      // The end tag repeats the open name byte for byte.
      p += 2;
      const std::size_t n = current.name.size;
      if (static_cast<std::size_t>(end - p) < n + 1 || p[n] != '>') return false;
      for (std::size_t i = 0; i < n; ++i) {
        if (p[i] != current.name.data[i]) return false;
      }
      p += n + 1;
      --depth;
      if (depth == 0) return p == end;
    }
  }
}

}  // namespace Telmora
