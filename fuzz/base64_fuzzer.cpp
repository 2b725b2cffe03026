// Decodes arbitrary text with kt::base64_decode into buffers of every small size, and checks that
// encoding then decoding the same bytes gives them back.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "kt/Utility.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* text = reinterpret_cast<const char*>(data);

  // The output limit is honoured exactly: a guard byte after the buffer must survive.
  for (unsigned long outSize = 0; outSize <= 8; ++outSize) {
    std::vector<unsigned char> out(outSize + 1, 0xA5);
    const unsigned long n = kt::base64_decode(out.data(), outSize, text, size);
    if (n > outSize || out[outSize] != 0xA5) abort();
    if (n > size / 4 * 3) abort();
  }
  std::vector<unsigned char> big(size / 4 * 3 + 3);
  kt::base64_decode(big.data(), big.size(), text, size);

  const std::string bytes(text, size);
  const std::string encoded = kt::Base64Encode(bytes);
  if (encoded.size() != (size + 2) / 3 * 4) abort();
  if (kt::Base64Decode(encoded) != bytes) abort();

  // Cut output stops at a group boundary and never writes past the limit.
  std::vector<char> cut(size % 13 + 1, '#');
  const unsigned long written = kt::base64_encode(cut.data(), cut.size() - 1, data, size);
  if (written % 4 != 0 || written > cut.size() - 1 || cut.back() != '#') abort();
  if (memcmp(cut.data(), encoded.data(), written) != 0) abort();
  return 0;
}
