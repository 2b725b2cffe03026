// Base64, hexadecimal dumps and ASCII case conversion.
#include <sstream>

#include "kt/Utility.h"

namespace kt {

namespace {

constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The inverse alphabet: 0-63 for the alphabet, 0 for "=" (its place in the group decides what it
// means), 0xFF for everything else.
struct Base64Inverse {
  unsigned char value[128];
};

constexpr Base64Inverse MakeBase64Inverse() {
  Base64Inverse table{};
  for (unsigned i = 0; i < 128; ++i) table.value[i] = 0xFF;
  for (unsigned i = 0; i < 64; ++i) {
    table.value[static_cast<unsigned char>(kBase64Alphabet[i])] = static_cast<unsigned char>(i);
  }
  table.value[static_cast<unsigned char>('=')] = 0;
  return table;
}

constexpr Base64Inverse kBase64Inverse = MakeBase64Inverse();

}  // namespace

unsigned long base64_encode(char* out, unsigned long outSize, const void* in,
                            unsigned long inLength) {
  const unsigned char* bytes = static_cast<const unsigned char*>(in);
  unsigned long written = 0;
  unsigned long i = 0;
  while (inLength - i >= 3 && outSize - written >= 4) {
    const unsigned long group = (static_cast<unsigned long>(bytes[i]) << 16) |
                                (static_cast<unsigned long>(bytes[i + 1]) << 8) | bytes[i + 2];
    out[written++] = kBase64Alphabet[(group >> 18) & 0x3F];
    out[written++] = kBase64Alphabet[(group >> 12) & 0x3F];
    out[written++] = kBase64Alphabet[(group >> 6) & 0x3F];
    out[written++] = kBase64Alphabet[group & 0x3F];
    i += 3;
  }
  const unsigned long rest = inLength - i;
  if ((rest == 1 || rest == 2) && outSize - written >= 4) {
    const unsigned long group = (static_cast<unsigned long>(bytes[i]) << 16) |
                                (rest == 2 ? static_cast<unsigned long>(bytes[i + 1]) << 8 : 0);
    out[written++] = kBase64Alphabet[(group >> 18) & 0x3F];
    out[written++] = kBase64Alphabet[(group >> 12) & 0x3F];
    out[written++] = rest == 2 ? kBase64Alphabet[(group >> 6) & 0x3F] : '=';
    out[written++] = '=';
  }
  return written;
}

unsigned long base64_decode(void* out, unsigned long outSize, const char* in,
                            unsigned long inLength) {
  unsigned char* bytes = static_cast<unsigned char*>(out);
  if (inLength < 4 || outSize < 3) return 0;
  unsigned long written = 0;
  for (unsigned long i = 0; inLength - i >= 4 && outSize - written >= 3; i += 4) {
    unsigned char v[4];
    for (int k = 0; k < 4; ++k) {
      const unsigned char c = static_cast<unsigned char>(in[i + k]);
      if (c >= 0x80 || kBase64Inverse.value[c] == 0xFF) return written;
      v[k] = kBase64Inverse.value[c];
    }
    bytes[written++] = static_cast<unsigned char>((v[0] << 2) | (v[1] >> 4));
    if (in[i + 2] == '=') return written;
    bytes[written++] = static_cast<unsigned char>((v[1] << 4) | (v[2] >> 2));
    if (in[i + 3] == '=') return written;
    bytes[written++] = static_cast<unsigned char>((v[2] << 6) | v[3]);
  }
  return written;
}

std::string Base64Encode(std::string const& data) {
  std::string text((data.size() + 2) / 3 * 4, '\0');
  text.resize(base64_encode(&text[0], text.size(), data.data(), data.size()));
  return text;
}

std::string Base64Decode(std::string const& text) {
  std::string data(text.size() / 4 * 3, '\0');
  if (data.empty()) return data;
  data.resize(base64_decode(&data[0], data.size(), text.data(), text.size()));
  return data;
}

std::string DecToHex(char c) {
  static const char kDigits[] = "0123456789ABCDEF";
  const unsigned char byte = static_cast<unsigned char>(c);
  return std::string{kDigits[byte >> 4], kDigits[byte & 0xF]};
}

std::string PrintHex(const void* data, unsigned long length, unsigned perLine) {
  const char* bytes = static_cast<const char*>(data);
  std::ostringstream out;
  for (unsigned long i = 0; i < length; ++i) {
    if (perLine == 0 ? i == 0 : i % perLine == 0) out << std::endl << "  ";
    out << " " << DecToHex(bytes[i]) << " ";
  }
  return out.str();
}
std::string ToUpper(std::string text) {
  for (char& c : text) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return text;
}

std::string ToLower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

}  // namespace kt
