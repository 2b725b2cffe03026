// Sounds a host plays through the speaker beside the meeting (AudioPlaySound): the reading of WAV
// data and the player that gives each sound its own small pipeline, so that sounds overlap and the
// sound system mixes them with the meeting's audio.
//
// Threads: Play and Stop may be called from any thread. The player's reaper thread (started with
// the first sound, gone once none is left) tears finished pipelines down and calls `done`, in the
// order the sounds finished; `done` never runs while a lock of the player is held.
#ifndef KTOPEN_SOUNDS_H
#define KTOPEN_SOUNDS_H

#include <gst/gst.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ktopen {

// Uncompressed 16-bit PCM, interleaved.
struct PcmSound {
  int rate = 0;
  int channels = 0;
  std::vector<int16_t> samples;
  double seconds() const {
    return rate > 0 && channels > 0 ? static_cast<double>(samples.size()) / channels / rate : 0;
  }
};

// Reads a RIFF/WAVE file holding 16-bit PCM, one or two channels, 8 to 48 kHz. Chunks other than
// "fmt " and "data" are skipped; a data chunk longer than the file is cut to it. False with a
// reason for anything else.
bool ReadWav(const uint8_t* data, size_t size, PcmSound* sound, std::string* error);

class SoundPlayer {
 public:
  // Called once per accepted sound: ended (true) when it played to its end or was stopped, failed
  // (false, with the reason) when it could not be played.
  using Done = std::function<void(uint64_t id, bool ended, const std::string& reason)>;

  explicit SoundPlayer(Done done) : done_(std::move(done)) {}
  SoundPlayer(const SoundPlayer&) = delete;
  SoundPlayer& operator=(const SoundPlayer&) = delete;
  ~SoundPlayer();  // stops every sound (reporting each) and the reaper

  // Reads the bytes before returning (the caller may free them at once) and starts playing them
  // on `speaker` (a speaker id; the null speaker plays in real time into nothing) at `gain`.
  // Unreadable data is accepted and then reported failed, with the reason. Playing an id that
  // still plays stops the earlier playback first.
  void Play(uint64_t id, const char* data, size_t size, const std::string& speaker, double gain);
  // Stops a playing sound early (reported ended); false when `id` does not play.
  bool Stop(uint64_t id);
  size_t playing() const;

 private:
  struct Sound {
    uint64_t id = 0;
    GstElement* pipeline = nullptr;
    std::chrono::steady_clock::time_point deadline;
    bool finished = false;
    bool ended = true;
    std::string reason;
  };
  struct BusContext {
    SoundPlayer* player;
    std::weak_ptr<Sound> sound;
  };
  static GstBusSyncReply OnBus(GstBus* bus, GstMessage* message, gpointer sound);
  void Finish(const std::shared_ptr<Sound>& sound, bool ended, const std::string& reason);
  void Reap();

  Done done_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::map<uint64_t, std::shared_ptr<Sound>> sounds_;  // GUARDED_BY(mutex_): playing
  std::vector<std::shared_ptr<Sound>> finished_;       // GUARDED_BY(mutex_): to tear down
  bool reaping_ = false;                               // GUARDED_BY(mutex_)
  std::thread reaper_;
};

}  // namespace ktopen

#endif  // KTOPEN_SOUNDS_H
