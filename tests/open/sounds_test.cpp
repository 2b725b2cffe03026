// Sounds: the reading of WAV data, and the player's ends (played out, stopped early, failed with a
// reason) on the speaker that plays nowhere in real time. No meeting is needed.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "core.h"
#include "media.h"
#include "sounds.h"

namespace {

using ktopen::PcmSound;
using ktopen::ReadWav;
using ktopen::SoundPlayer;

void Put16(std::vector<uint8_t>* out, unsigned v) {
  out->push_back(v & 0xff);
  out->push_back((v >> 8) & 0xff);
}
void Put32(std::vector<uint8_t>* out, uint32_t v) {
  Put16(out, v & 0xffff);
  Put16(out, v >> 16);
}
void Tag(std::vector<uint8_t>* out, const char* four) { out->insert(out->end(), four, four + 4); }

// A WAV file: `frames` frames of a rising ramp, with an extra chunk before the data.
std::vector<uint8_t> Wav(unsigned format, unsigned channels, uint32_t rate, unsigned bits,
                         uint32_t frames) {
  std::vector<uint8_t> w;
  const uint32_t data = frames * channels * (bits / 8);
  Tag(&w, "RIFF");
  Put32(&w, 4 + 24 + 12 + 8 + data);
  Tag(&w, "WAVE");
  Tag(&w, "fmt ");
  Put32(&w, 16);
  Put16(&w, format);
  Put16(&w, channels);
  Put32(&w, rate);
  Put32(&w, rate * channels * bits / 8);
  Put16(&w, channels * bits / 8);
  Put16(&w, bits);
  Tag(&w, "LIST");  // an odd-length chunk, padded
  Put32(&w, 3);
  w.insert(w.end(), {'a', 'b', 'c', 0});
  Tag(&w, "data");
  Put32(&w, data);
  for (uint32_t i = 0; i < frames * channels; ++i) Put16(&w, (i * 7) & 0xffff);
  return w;
}

TEST(Sounds, ReadWavTakesPcm16MonoAndStereoAndRefusesTheRestWithAReason) {
  PcmSound sound;
  std::string why;
  std::vector<uint8_t> mono = Wav(1, 1, 8000, 16, 800);
  ASSERT_TRUE(ReadWav(mono.data(), mono.size(), &sound, &why)) << why;
  EXPECT_EQ(sound.rate, 8000);
  EXPECT_EQ(sound.channels, 1);
  ASSERT_EQ(sound.samples.size(), 800u);
  EXPECT_EQ(sound.samples[3], 21);
  EXPECT_DOUBLE_EQ(sound.seconds(), 0.1);

  std::vector<uint8_t> stereo = Wav(1, 2, 48000, 16, 4800);
  ASSERT_TRUE(ReadWav(stereo.data(), stereo.size(), &sound, &why)) << why;
  EXPECT_EQ(sound.channels, 2);
  EXPECT_DOUBLE_EQ(sound.seconds(), 0.1);

  // A data chunk that claims more than the file holds is cut to what is there.
  std::vector<uint8_t> cut = Wav(1, 1, 16000, 16, 100);
  cut.resize(cut.size() - 50);
  ASSERT_TRUE(ReadWav(cut.data(), cut.size(), &sound, &why)) << why;
  EXPECT_EQ(sound.samples.size(), 75u);

  const std::vector<uint8_t> garbage = {'h', 'e', 'l', 'l', 'o'};
  const struct {
    std::vector<uint8_t> data;
    const char* reason;
  } refused[] = {
      {garbage, "not a WAV file"},
      {Wav(3, 1, 16000, 32, 10), "16-bit PCM only"},
      {Wav(1, 1, 16000, 8, 10), "16-bit PCM only"},
      {Wav(1, 3, 16000, 16, 10), "channel count 3"},
      {Wav(1, 1, 96000, 16, 10), "sample rate 96000"},
      {Wav(1, 1, 4000, 16, 10), "sample rate 4000"},
      {Wav(1, 1, 16000, 16, 0), "no samples"},
      {std::vector<uint8_t>(mono.begin(), mono.begin() + 36), "without data"},
  };
  for (const auto& c : refused) {
    why.clear();
    EXPECT_FALSE(ReadWav(c.data.data(), c.data.size(), &sound, &why)) << c.reason;
    EXPECT_NE(why.find(c.reason), std::string::npos) << why;
  }
  EXPECT_FALSE(ReadWav(nullptr, 0, &sound, &why));
}

struct Ends {
  std::mutex mutex;
  std::condition_variable changed;
  std::map<uint64_t, std::string> seen;  // id -> "ended" or "failed: reason"
  std::vector<uint64_t> order;

  bool WaitFor(size_t count) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(20), [&] { return seen.size() >= count; });
  }
};

TEST(Sounds, OverlappingSoundsPlayOutAStoppedOneEndsEarlyAndBrokenDataFails) {
  ASSERT_TRUE(ktopen::InitMedia(nullptr));
  Ends ends;
  {
    SoundPlayer player([&](uint64_t id, bool ended, const std::string& why) {
      std::lock_guard<std::mutex> lock(ends.mutex);
      ends.seen[id] = ended ? "ended" : "failed: " + why;
      ends.order.push_back(id);
      ends.changed.notify_all();
    });
    std::vector<uint8_t> shorter = Wav(1, 1, 16000, 16, 1600);  // 0.1 s
    std::vector<uint8_t> longer = Wav(1, 2, 44100, 16, 22050);  // 0.5 s
    std::vector<uint8_t> endless = Wav(1, 1, 8000, 16, 8000 * 60);
    const std::vector<uint8_t> broken = {'R', 'I', 'F', 'F'};
    const auto bytes = [](const std::vector<uint8_t>& v) {
      return reinterpret_cast<const char*>(v.data());
    };
    player.Play(1, bytes(longer), longer.size(), "null-speaker", 1.0);
    player.Play(2, bytes(shorter), shorter.size(), "", 1.0);
    player.Play(3, bytes(endless), endless.size(), "null-speaker", 1.0);
    // The player has its own copy: the caller's bytes may change at once.
    std::memset(longer.data(), 0, longer.size());
    std::memset(shorter.data(), 0, shorter.size());
    player.Play(4, bytes(broken), broken.size(), "null-speaker", 1.0);
    EXPECT_EQ(player.playing(), 3u);
    ASSERT_TRUE(ends.WaitFor(3));  // the broken one and the two short ones
    EXPECT_TRUE(player.Stop(3));
    EXPECT_FALSE(player.Stop(3));
    EXPECT_FALSE(player.Stop(99));
    ASSERT_TRUE(ends.WaitFor(4));
    std::lock_guard<std::mutex> lock(ends.mutex);
    EXPECT_EQ(ends.seen[1], "ended");
    EXPECT_EQ(ends.seen[2], "ended");
    EXPECT_EQ(ends.seen[3], "ended");
    EXPECT_EQ(ends.seen[4].rfind("failed: not a WAV file", 0), 0u) << ends.seen[4];
    // The unreadable one is reported at once, the stopped one after the two that played out.
    ASSERT_EQ(ends.order.size(), 4u);
    EXPECT_EQ(ends.order.front(), 4u);
    EXPECT_EQ(ends.order.back(), 3u);
    EXPECT_EQ(player.playing(), 0u);
  }
}

Ends* core_ends = nullptr;

void OnAudioEvent(void*, const char* xml) {
  std::lock_guard<std::mutex> lock(core_ends->mutex);
  core_ends->order.push_back(core_ends->order.size());
  core_ends->seen[core_ends->seen.size()] = xml;
  core_ends->changed.notify_all();
}

TEST(Sounds, TheEngineNamesEachPlaybackByTheHostsPointer) {
  using namespace ktopen;
  Ends ends;
  core_ends = &ends;
  core::SetCallback(kAudio, &OnAudioEvent);
  std::vector<uint8_t> wav = Wav(1, 1, 8000, 16, 400);
  const char* data = reinterpret_cast<const char*>(wav.data());
  const char junk[] = "junk";
  EXPECT_FALSE(core::PlaySound(nullptr, 10));
  EXPECT_FALSE(core::StopSound(junk));
  char error[256] = "";
  core::GetLastError(kAudio, error, sizeof error);
  EXPECT_STREQ(error, "No sound is playing from that data");
  ASSERT_TRUE(core::PlaySound(data, wav.size()));
  ASSERT_TRUE(core::PlaySound(junk, sizeof junk));
  ASSERT_TRUE(ends.WaitFor(2));
  core::SetCallback(kAudio, nullptr);
  std::lock_guard<std::mutex> lock(ends.mutex);
  const std::string id = std::to_string(reinterpret_cast<uintptr_t>(data));
  const std::string junk_id = std::to_string(reinterpret_cast<uintptr_t>(junk));
  EXPECT_EQ(ends.seen[0],
            "<event name=\"binary_playback_failed\"><data>" + junk_id +
                "</data><reason>not a WAV file (no RIFF/WAVE header)</reason></event>");
  EXPECT_EQ(ends.seen[1], "<event name=\"binary_playback_ended\"><data>" + id + "</data></event>");
}

}  // namespace
