#include "test_camera.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>

namespace ktopen {

namespace {

constexpr int kBlocks = 40;  // blocks per code row
constexpr int kBlockRowsPerPicture = 30;
constexpr int kCodeRows = 3;
constexpr int kDataBits = 32;
constexpr int kCountBits = 6;
constexpr uint8_t kBlack = 16, kWhite = 235;
constexpr int kSquare = 96;  // the bouncing square's side at 640x480, scaled with the width

std::atomic<uint32_t> identity{2166136261u};  // PictureIdentity("")

// A sine wave of amplitude 48 over 256 steps.
const std::array<int8_t, 256>& Wave() {
  static const std::array<int8_t, 256> wave = [] {
    std::array<int8_t, 256> w{};
    for (int i = 0; i < 256; ++i)
      w[i] = static_cast<int8_t>(std::lround(48 * std::sin(i * M_PI / 128)));
    return w;
  }();
  return wave;
}

// 0..span and back again, `step` at a time.
int Bounce(uint32_t step, int span) {
  if (span <= 0) return 0;
  const uint32_t period = 2u * static_cast<uint32_t>(span);
  const int at = static_cast<int>(step % period);
  return at <= span ? at : static_cast<int>(period) - at;
}

void Fill(uint8_t* plane, int stride, int x0, int y0, int w, int h, uint8_t value) {
  for (int row = y0; row < y0 + h; ++row)
    std::fill_n(plane + static_cast<size_t>(row) * stride + x0, w, value);
}

int Ones(uint32_t value) { return __builtin_popcount(value); }

}  // namespace

uint32_t PictureIdentity(const std::string& publisher_id) {
  uint32_t hash = 2166136261u;
  for (unsigned char c : publisher_id) {
    hash ^= c;
    hash *= 16777619u;
  }
  return hash;
}

void SetPictureIdentity(const std::string& publisher_id) {
  identity.store(PictureIdentity(publisher_id), std::memory_order_relaxed);
}

void DrawTestCamera(uint8_t* y, int y_stride, uint8_t* u, uint8_t* v, int uv_stride, int width,
                    int height, uint32_t frame, uint32_t capture_ms, uint32_t who) {
  if (width < kBlocks || height < kBlockRowsPerPicture) return;
  const auto& wave = Wave();
  const int block_w = width / kBlocks, block_h = height / kBlockRowsPerPicture;
  const int code_top = height - kCodeRows * block_h;
  const int band = height / 8;  // the identity's flat colour band at the top
  const uint8_t colour_u = static_cast<uint8_t>(48 + (who & 0x9f));
  const uint8_t colour_v = static_cast<uint8_t>(48 + ((who >> 8) & 0x9f));

  // Luma: two drifting waves, sensor-like noise, a textured square bouncing around.
  const int side = std::max(8, kSquare * width / 640);
  const int square_x = Bounce(frame * 5, width - side);
  const int square_y = band + Bounce(frame * 3, code_top - band - side);
  uint32_t noise = frame * 2654435761u + 1u;
  for (int row = 0; row < code_top; ++row) {
    uint8_t* line = y + static_cast<size_t>(row) * y_stride;
    if (row < band) {
      std::fill_n(line, width, static_cast<uint8_t>(110));
      continue;
    }
    const int across = wave[(row + 2 * frame) & 255] / 2;
    const bool in_square_rows = row >= square_y && row < square_y + side;
    for (int x = 0; x < width; ++x) {
      noise ^= noise << 13;
      noise ^= noise >> 17;
      noise ^= noise << 5;
      int value = 128 + wave[(x + 3 * frame) & 255] + across + static_cast<int>(noise & 7) - 4;
      if (in_square_rows && x >= square_x && x < square_x + side) {
        value = (((x - square_x) >> 3) ^ ((row - square_y) >> 3)) & 1 ? 200 : 60;
      }
      line[x] = static_cast<uint8_t>(std::clamp(value, 16, 235));
    }
  }
  // Chroma: the identity's colour, slowly shifting in the picture, flat in the band.
  const int chroma_w = (width + 1) / 2, chroma_h = (height + 1) / 2;
  for (int row = 0; row < chroma_h; ++row) {
    uint8_t* line_u = u + static_cast<size_t>(row) * uv_stride;
    uint8_t* line_v = v + static_cast<size_t>(row) * uv_stride;
    if (2 * row >= code_top) {
      std::fill_n(line_u, chroma_w, static_cast<uint8_t>(128));
      std::fill_n(line_v, chroma_w, static_cast<uint8_t>(128));
      continue;
    }
    const bool flat = 2 * row < band;
    for (int x = 0; x < chroma_w; ++x) {
      const int shift = flat ? 0 : wave[(x + row + frame) & 255] / 4;
      line_u[x] = static_cast<uint8_t>(std::clamp(colour_u + shift, 16, 240));
      line_v[x] = static_cast<uint8_t>(std::clamp(colour_v - shift, 16, 240));
    }
  }
  // The code rows.
  const uint32_t values[kCodeRows] = {frame, capture_ms, who};
  for (int r = 0; r < kCodeRows; ++r) {
    const int top = code_top + r * block_h;
    Fill(y, y_stride, 0, top, width, block_h, kBlack);
    Fill(y, y_stride, 0, top, block_w, block_h, kWhite);
    const uint32_t value = values[r];
    const uint32_t ones = static_cast<uint32_t>(Ones(value));
    for (int bit = 0; bit < kDataBits + kCountBits; ++bit) {
      const bool set = bit < kDataBits ? (value >> (kDataBits - 1 - bit)) & 1
                                       : (ones >> (kDataBits + kCountBits - 1 - bit)) & 1;
      if (set) Fill(y, y_stride, (2 + bit) * block_w, top, block_w, block_h, kWhite);
    }
  }
}

bool ReadTestCameraCode(const uint8_t* y, int y_stride, int width, int height, uint32_t* frame,
                        uint32_t* capture_ms, uint32_t* who) {
  if (width < kBlocks || height < kBlockRowsPerPicture) return false;
  const int block_w = width / kBlocks, block_h = height / kBlockRowsPerPicture;
  const int code_top = height - kCodeRows * block_h;
  uint32_t values[kCodeRows];
  for (int r = 0; r < kCodeRows; ++r) {
    const uint8_t* centre =
        y + static_cast<size_t>(code_top + r * block_h + block_h / 2) * y_stride;
    auto bit = [&](int block) { return centre[block * block_w + block_w / 2] >= 128; };
    if (!bit(0) || bit(1)) return false;
    uint32_t value = 0, ones = 0;
    for (int b = 0; b < kDataBits; ++b) value = (value << 1) | (bit(2 + b) ? 1u : 0u);
    for (int b = 0; b < kCountBits; ++b) ones = (ones << 1) | (bit(2 + kDataBits + b) ? 1u : 0u);
    if (ones != static_cast<uint32_t>(Ones(value))) return false;
    values[r] = value;
  }
  *frame = values[0];
  *capture_ms = values[1];
  *who = values[2];
  return true;
}

uint32_t CurrentPictureIdentity() { return identity.load(std::memory_order_relaxed); }

}  // namespace ktopen
