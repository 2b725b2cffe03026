#include "frame.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

namespace ktsim {

bool FormatOf(const std::string& colorspace, ktsim_pixel_format* format) {
  if (colorspace == "RGB888" || colorspace == "RGB24") {
    *format = KTSIM_RGB888;
  } else if (colorspace == "BGRA8888" || colorspace == "ARGB8888" || colorspace == "BGRA") {
    *format = KTSIM_BGRA8888;
  } else if (colorspace == "RGBA8888" || colorspace == "RGBA") {
    *format = KTSIM_RGBA8888;
  } else {
    return false;
  }
  return true;
}

namespace frames {

namespace {

// A descriptor and its writer lock. `frame` comes first: the slot's address is the frame's.
struct Slot {
  ktsim_frame frame;
  std::mutex mutex;
};

struct Pool {
  std::mutex mutex;
  std::map<const ktsim_frame*, Slot*> all;  // GUARDED_BY(mutex); never shrinks
  std::vector<Slot*> released;              // GUARDED_BY(mutex)
};

Pool& ThePool() {
  static Pool* const pool = new Pool();  // never destroyed: hosts may read frames during exit
  return *pool;
}

Slot* SlotOf(const ktsim_frame* frame) {
  Pool& pool = ThePool();
  std::lock_guard<std::mutex> lock(pool.mutex);
  auto it = pool.all.find(frame);
  return it == pool.all.end() ? nullptr : it->second;
}

// Seqlock writer side: odd while the descriptor changes.
void BeginWrite(ktsim_frame* f) {
  __atomic_store_n(&f->sequence, f->sequence + 1, __ATOMIC_RELAXED);
  __atomic_thread_fence(__ATOMIC_RELEASE);
}
void EndWrite(ktsim_frame* f) { __atomic_store_n(&f->sequence, f->sequence + 1, __ATOMIC_RELEASE); }

struct Pixel {
  uint8_t b[4];
};

Pixel Encode(unsigned format, int r, int g, int b) {
  auto c = [](int v) { return static_cast<uint8_t>(std::clamp(v, 0, 255)); };
  if (format == KTSIM_BGRA8888) return Pixel{{c(b), c(g), c(r), 255}};
  return Pixel{{c(r), c(g), c(b), 255}};
}

class Canvas {
 public:
  explicit Canvas(ktsim_frame* f) : f_(f) {}
  int w() const { return f_->width; }
  int h() const { return f_->height; }
  Pixel Color(int r, int g, int b) const { return Encode(f_->format, r, g, b); }

  void Row(int y, int x0, int x1, Pixel p) {
    if (y < 0 || y >= h()) return;
    x0 = std::max(x0, 0);
    x1 = std::min(x1, w());
    const int bpp = f_->bytes_per_pixel;
    if (x1 <= x0) return;
    uint8_t* out = f_->data + static_cast<size_t>(y) * f_->stride + static_cast<size_t>(x0) * bpp;
    // One pixel, then the filled part copied onto the rest, doubling each time.
    const size_t total = static_cast<size_t>(x1 - x0) * bpp;
    std::memcpy(out, p.b, bpp);
    for (size_t done = bpp; done < total; done *= 2) {
      std::memcpy(out + done, out, std::min(done, total - done));
    }
  }
  void Rect(int x0, int y0, int x1, int y1, Pixel p) {
    for (int y = std::max(y0, 0); y < std::min(y1, h()); ++y) Row(y, x0, x1, p);
  }
  void Frame(int thickness, Pixel p) {
    Rect(0, 0, w(), thickness, p);
    Rect(0, h() - thickness, w(), h(), p);
    Rect(0, 0, thickness, h(), p);
    Rect(w() - thickness, 0, w(), h(), p);
  }

 private:
  ktsim_frame* f_;
};

// A position moving back and forth over [0, span).
int Bounce(uint64_t t, int span) {
  if (span <= 1) return 0;
  const uint64_t period = 2 * static_cast<uint64_t>(span - 1);
  const int p = static_cast<int>(t % period);
  return p < span ? p : static_cast<int>(period) - p;
}

void DrawCamera(Canvas& c, const Picture& p, uint64_t i, bool local) {
  const int r = p.rgb[0], g = p.rgb[1], b = p.rgb[2];
  const int w = c.w(), h = c.h();
  for (int y = 0; y < h; ++y) {
    const int shade = 60 + 40 * y / std::max(h, 1);  // percent, darker at the top
    c.Row(y, 0, w, c.Color(r * shade / 100, g * shade / 100, b * shade / 100));
  }
  if (local) {  // the local camera: a checker over the colour, so it never looks remote
    const int cell = std::max(8, w / 16);
    for (int y = 0; y < h; y += cell) {
      for (int x = ((y / cell) % 2) * cell; x < w; x += 2 * cell) {
        c.Rect(x, y, x + cell, y + cell, c.Color(r / 2, g / 2, b / 2));
      }
    }
  }
  const int bar = std::max(2, w / 24);
  const int bx = static_cast<int>((i * static_cast<uint64_t>(std::max(1, w / 90)) + p.seed) % w);
  c.Rect(bx, 0, bx + bar, h, c.Color(255 - r / 2, 255 - g / 2, 255 - b / 2));
  const int band = std::max(2, h / 20);
  const int by = Bounce(i * static_cast<uint64_t>(std::max(1, h / 120)) + p.seed / 7, h - band);
  c.Rect(0, by, w, by + band, c.Color(240, 240, 240));
  const int box = std::max(4, std::min(w, h) / 6);
  const int x = Bounce(i * 3 + p.seed % 97, w - box), y = Bounce(i * 2 + p.seed % 89, h - box);
  c.Rect(x, y, x + box, y + box, c.Color(g, b, r));
  if (p.speaking) c.Frame(std::max(2, std::min(w, h) / 60), c.Color(40, 220, 60));
}

void DrawCameraOff(Canvas& c, const Picture& p, uint64_t i) {
  c.Rect(0, 0, c.w(), c.h(), c.Color(28, 28, 32));
  const int size = std::min(c.w(), c.h()) / 3;
  const int pulse =
      static_cast<int>(i % 60) < 30 ? static_cast<int>(i % 30) : 30 - static_cast<int>(i % 30);
  const int x = (c.w() - size) / 2, y = (c.h() - size) / 2;
  c.Rect(x, y, x + size, y + size,
         c.Color(p.rgb[0] / 3 + pulse, p.rgb[1] / 3 + pulse, p.rgb[2] / 3 + pulse));
  if (p.speaking) c.Frame(std::max(2, std::min(c.w(), c.h()) / 60), c.Color(40, 220, 60));
}

void DrawScreen(Canvas& c, const Picture& p, uint64_t i) {
  const int w = c.w(), h = c.h();
  c.Rect(0, 0, w, h, c.Color(p.rgb[0] / 4 + 20, p.rgb[1] / 4 + 40, p.rgb[2] / 4 + 80));  // desktop
  c.Rect(0, 0, w, std::max(2, h / 40), c.Color(230, 230, 230));                          // menu bar
  for (int k = 0; k < 3; ++k) {  // windows, each with a title bar and scrolling lines of text
    const uint32_t s = p.seed * (k + 3) + 17 * k;
    const int x0 = static_cast<int>(s % std::max(1, w / 2));
    const int y0 = h / 20 + static_cast<int>((s / 7) % std::max(1, h / 3));
    const int x1 = std::min(w, x0 + w / 3 + static_cast<int>(s % std::max(1, w / 5)));
    const int y1 = std::min(h, y0 + h / 3 + static_cast<int>((s / 3) % std::max(1, h / 4)));
    c.Rect(x0, y0, x1, y1, c.Color(250, 250, 250));
    c.Rect(x0, y0, x1, y0 + std::max(2, h / 50), c.Color(200, 200, 205));
    const int line = std::max(3, h / 60);
    const int scroll = static_cast<int>(i % static_cast<uint64_t>(2 * line));
    for (int y = y0 + 2 * line - scroll; y + 1 < y1; y += 2 * line) {
      if (y <= y0 + std::max(2, h / 50)) continue;
      const int len = (x1 - x0) * (40 + static_cast<int>((s + y) % 50)) / 100;
      c.Rect(x0 + line, y, x0 + line + len - 2 * line, y + line / 2 + 1, c.Color(70, 70, 80));
    }
  }
  const int cursor = std::max(3, h / 60);  // the pointer
  const int cx = Bounce(i * 5 + p.seed % 101, w - cursor), cy = Bounce(i * 3, h - cursor);
  c.Rect(cx, cy, cx + cursor, cy + cursor, c.Color(10, 10, 10));
}

void DrawNetwork(Canvas& c, const Picture& p, uint64_t i) {
  static const int kBars[7][3] = {{192, 192, 192}, {192, 192, 0}, {0, 192, 192}, {0, 192, 0},
                                  {192, 0, 192},   {192, 0, 0},   {0, 0, 192}};
  const int w = c.w(), h = c.h();
  for (int k = 0; k < 7; ++k) {
    c.Rect(k * w / 7, 0, (k + 1) * w / 7, h, c.Color(kBars[k][0], kBars[k][1], kBars[k][2]));
  }
  const int band = std::max(2, h / 12);
  const int y = Bounce(i * 2 + p.seed % 53, h - band);
  c.Rect(0, y, w, y + band, c.Color(16, 16, 16));
}

}  // namespace

ktsim_frame* Acquire(int width, int height) {
  Pool& pool = ThePool();
  std::lock_guard<std::mutex> lock(pool.mutex);
  for (auto it = pool.released.begin(); it != pool.released.end(); ++it) {
    if ((*it)->frame.max_width >= width && (*it)->frame.max_height >= height) {
      Slot* slot = *it;
      pool.released.erase(it);
      return &slot->frame;
    }
  }
  Slot* slot = new Slot();  // never deleted, see the header
  ktsim_frame& f = slot->frame;
  f.magic = KTSIM_FRAME_MAGIC;
  f.max_width = width;
  f.max_height = height;
  f.capacity = static_cast<size_t>(width) * 4 * static_cast<size_t>(height);
  f.data = new unsigned char[f.capacity]();
  f.format = KTSIM_RGB888;
  f.bytes_per_pixel = 3;
  pool.all.emplace(&slot->frame, slot);
  return &slot->frame;
}

void Release(ktsim_frame* frame) {
  Pool& pool = ThePool();
  std::lock_guard<std::mutex> lock(pool.mutex);
  auto it = pool.all.find(frame);
  if (it != pool.all.end()) pool.released.push_back(it->second);
}

bool Owns(const ktsim_frame* frame) { return SlotOf(frame) != nullptr; }

bool Fits(const ktsim_frame* frame, int width, int height) {
  return frame->max_width >= width && frame->max_height >= height;
}

void Prepare(ktsim_frame* frame, ktsim_pixel_format format, int width, int height,
             const std::string& stream_id) {
  Slot* slot = SlotOf(frame);
  if (slot == nullptr) return;
  std::lock_guard<std::mutex> lock(slot->mutex);
  ktsim_frame& f = slot->frame;
  width = std::clamp(width, 1, f.max_width);
  height = std::clamp(height, 1, f.max_height);
  BeginWrite(&f);
  f.format = format;
  f.bytes_per_pixel = format == KTSIM_RGB888 ? 3 : 4;
  f.width = width;
  f.height = height;
  f.stride = width * f.bytes_per_pixel;
  f.frame_number = 0;
  std::memset(f.data, 0, static_cast<size_t>(f.stride) * static_cast<size_t>(f.height));
  std::snprintf(f.stream_id, sizeof f.stream_id, "%s", stream_id.c_str());
  EndWrite(&f);
}

void Write(ktsim_frame* frame, const Picture& picture, uint64_t index) {
  Slot* slot = SlotOf(frame);
  if (slot == nullptr) return;
  std::lock_guard<std::mutex> lock(slot->mutex);
  ktsim_frame& f = slot->frame;
  BeginWrite(&f);
  Canvas canvas(&f);
  switch (picture.kind) {
    case Picture::kCamera:
      DrawCamera(canvas, picture, index, false);
      break;
    case Picture::kLocalCamera:
      DrawCamera(canvas, picture, index, true);
      break;
    case Picture::kCameraOff:
      DrawCameraOff(canvas, picture, index);
      break;
    case Picture::kScreen:
      DrawScreen(canvas, picture, index);
      break;
    case Picture::kNetwork:
      DrawNetwork(canvas, picture, index);
      break;
  }
  ++f.frame_number;
  EndWrite(&f);
}

size_t Copy(const ktsim_frame* frame, void* pixels, size_t size, ktsim_frame* info) {
  Slot* slot = frame ? SlotOf(frame) : nullptr;
  if (slot == nullptr) return 0;
  std::lock_guard<std::mutex> lock(slot->mutex);
  const ktsim_frame& f = slot->frame;
  const size_t row = static_cast<size_t>(f.width) * static_cast<size_t>(f.bytes_per_pixel);
  const size_t bytes = row * static_cast<size_t>(f.height);
  if (pixels != nullptr) {
    if (size < bytes) return 0;
    for (int y = 0; y < f.height; ++y) {
      std::memcpy(static_cast<unsigned char*>(pixels) + y * row,
                  f.data + static_cast<size_t>(y) * f.stride, row);
    }
  }
  if (info != nullptr) *info = f;
  return bytes;
}

}  // namespace frames
}  // namespace ktsim
