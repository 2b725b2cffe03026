// The SHA-1 digest (FIPS 180-4).
#include <string.h>

#include "kt/Utility.h"

namespace kt {

namespace {

uint32_t RotateLeft(uint32_t value, int bits) { return (value << bits) | (value >> (32 - bits)); }

void Sha1Block(uint32_t state[5], const unsigned char block[64]) {
  uint32_t w[80];
  for (int i = 0; i < 16; ++i) {
    w[i] = (static_cast<uint32_t>(block[4 * i]) << 24) |
           (static_cast<uint32_t>(block[4 * i + 1]) << 16) |
           (static_cast<uint32_t>(block[4 * i + 2]) << 8) | block[4 * i + 3];
  }
  for (int i = 16; i < 80; ++i) w[i] = RotateLeft(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
  uint32_t a = state[0], b = state[1], c = state[2], d = state[3], e = state[4];
  for (int i = 0; i < 80; ++i) {
    uint32_t f;
    uint32_t k;
    if (i < 20) {
      f = (b & c) | (~b & d);
      k = 0x5A827999;
    } else if (i < 40) {
      f = b ^ c ^ d;
      k = 0x6ED9EBA1;
    } else if (i < 60) {
      f = (b & c) | (b & d) | (c & d);
      k = 0x8F1BBCDC;
    } else {
      f = b ^ c ^ d;
      k = 0xCA62C1D6;
    }
    const uint32_t t = RotateLeft(a, 5) + f + e + k + w[i];
    e = d;
    d = c;
    c = RotateLeft(b, 30);
    b = a;
    a = t;
  }
  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
  state[4] += e;
}

}  // namespace

std::string Sha1(std::string const& data) {
  uint32_t state[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(data.data());
  const size_t size = data.size();
  size_t offset = 0;
  for (; size - offset >= 64; offset += 64) Sha1Block(state, bytes + offset);

  // The tail, the 0x80 marker and the 64-bit length in bits fill one or two last blocks.
  unsigned char tail[128] = {};
  const size_t rest = size - offset;
  memcpy(tail, bytes + offset, rest);
  tail[rest] = 0x80;
  const size_t tailSize = rest < 56 ? 64 : 128;
  const uint64_t bits = static_cast<uint64_t>(size) * 8;
  for (int i = 0; i < 8; ++i) tail[tailSize - 1 - i] = static_cast<unsigned char>(bits >> (8 * i));
  Sha1Block(state, tail);
  if (tailSize == 128) Sha1Block(state, tail + 64);

  static const char kDigits[] = "0123456789abcdef";
  std::string digest;
  digest.reserve(40);
  for (uint32_t word : state) {
    for (int shift = 28; shift >= 0; shift -= 4) digest += kDigits[(word >> shift) & 0xF];
  }
  return digest;
}

}  // namespace kt
