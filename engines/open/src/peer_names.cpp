#include "peer_names.h"

#include <cstdint>
#include <cstdio>

namespace ktopen {

namespace {

bool Safe(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '_' || c == '@' || c == '+' || c == '-';
}

// The length of the valid UTF-8 sequence at text[at] and its code point, or 0 when it is not one
// (overlong forms, surrogates and code points past U+10FFFF included).
size_t Sequence(const std::string& text, size_t at, uint32_t* code) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(at);
  size_t length;
  uint32_t value, minimum;
  if (lead < 0x80) {
    *code = lead;
    return 1;
  } else if ((lead & 0xe0) == 0xc0) {
    length = 2, value = lead & 0x1f, minimum = 0x80;
  } else if ((lead & 0xf0) == 0xe0) {
    length = 3, value = lead & 0x0f, minimum = 0x800;
  } else if ((lead & 0xf8) == 0xf0) {
    length = 4, value = lead & 0x07, minimum = 0x10000;
  } else {
    return 0;
  }
  if (at + length > text.size()) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xc0) != 0x80) return 0;
    value = (value << 6) | (byte(at + i) & 0x3f);
  }
  if (value < minimum || value > 0x10ffff || (value >= 0xd800 && value <= 0xdfff)) return 0;
  *code = value;
  return length;
}

}  // namespace

std::string StreamBase(const std::string& publisher_id) {
  bool plain = !publisher_id.empty() && publisher_id.size() <= kMaxStreamBase;
  for (unsigned char c : publisher_id) plain = plain && Safe(c);
  if (plain) return publisher_id;
  uint32_t hash = 2166136261u;  // FNV-1a
  std::string base;
  for (unsigned char c : publisher_id) {
    hash = (hash ^ c) * 16777619u;
    if (Safe(c) && base.size() < kMaxStreamBase - 9) base += static_cast<char>(c);
  }
  char suffix[10];
  std::snprintf(suffix, sizeof suffix, "~%08x", hash);
  return base + suffix;
}

std::string CleanName(const std::string& text, size_t max_bytes) {
  static const std::string kReplacement = "\xef\xbf\xbd";  // U+FFFD
  std::string out;
  for (size_t at = 0; at < text.size();) {
    uint32_t code = 0;
    const size_t length = Sequence(text, at, &code);
    std::string piece;
    if (length == 0) {
      piece = kReplacement;
      at += 1;
    } else {
      if (code == '\t' || code == '\n' || code == '\r') {
        piece = " ";
      } else if (code >= 0x20 && code != 0x7f && !(code >= 0x80 && code < 0xa0)) {
        piece = text.substr(at, length);
      }
      at += length;
    }
    if (out.size() + piece.size() > max_bytes) break;
    out += piece;
  }
  return out;
}

}  // namespace ktopen
