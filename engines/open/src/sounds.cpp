#include "sounds.h"

#include <gst/app/gstappsrc.h>

#include <algorithm>
#include <cstring>

#include "devices.h"

namespace ktopen {

namespace {

uint32_t Le32(const uint8_t* p) {
  return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
uint16_t Le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

bool Refuse(std::string* error, const std::string& why) {
  if (error) *error = why;
  return false;
}

}  // namespace

bool ReadWav(const uint8_t* data, size_t size, PcmSound* sound, std::string* error) {
  if (data == nullptr || size < 12 || std::memcmp(data, "RIFF", 4) != 0 ||
      std::memcmp(data + 8, "WAVE", 4) != 0) {
    return Refuse(error, "not a WAV file (no RIFF/WAVE header)");
  }
  bool have_format = false;
  int format = 0, channels = 0, bits = 0;
  uint32_t rate = 0;
  size_t at = 12;
  while (at + 8 <= size) {
    const uint8_t* chunk = data + at;
    const size_t length = Le32(chunk + 4);
    const size_t body = at + 8;
    const size_t available = std::min(length, size - body);
    if (std::memcmp(chunk, "fmt ", 4) == 0) {
      if (available < 16) return Refuse(error, "WAV format chunk too short");
      format = Le16(data + body);
      channels = Le16(data + body + 2);
      rate = Le32(data + body + 4);
      bits = Le16(data + body + 14);
      if (format == 0xFFFE && available >= 26) format = Le16(data + body + 24);  // extensible
      have_format = true;
    } else if (std::memcmp(chunk, "data", 4) == 0) {
      if (!have_format) return Refuse(error, "WAV data before its format");
      if (format != 1 || bits != 16) {
        return Refuse(error, "unsupported WAV encoding (format " + std::to_string(format) + ", " +
                                 std::to_string(bits) + " bits): 16-bit PCM only");
      }
      if (channels < 1 || channels > 2) {
        return Refuse(error, "unsupported WAV channel count " + std::to_string(channels));
      }
      if (rate < 8000 || rate > 48000) {
        return Refuse(error, "unsupported WAV sample rate " + std::to_string(rate));
      }
      const size_t frames = available / (2 * static_cast<size_t>(channels));
      if (frames == 0) return Refuse(error, "WAV data holds no samples");
      sound->rate = static_cast<int>(rate);
      sound->channels = channels;
      sound->samples.resize(frames * channels);
      for (size_t i = 0; i < sound->samples.size(); ++i) {
        sound->samples[i] = static_cast<int16_t>(Le16(data + body + 2 * i));
      }
      return true;
    }
    if (length > size - body) break;
    at = body + length + (length & 1);  // chunks are padded to an even length
  }
  return Refuse(error, have_format ? "WAV file without data" : "WAV file without format");
}

// ---- Player ------------------------------------------------------------------------------------

namespace {

// Every sound ends within its length and this margin, even on a speaker that stopped playing.
constexpr auto kEndMargin = std::chrono::seconds(10);

}  // namespace

SoundPlayer::~SoundPlayer() {
  std::vector<uint64_t> ids;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& entry : sounds_) ids.push_back(entry.first);
  }
  for (uint64_t id : ids) Stop(id);
  std::unique_lock<std::mutex> lock(mutex_);
  wake_.wait(lock, [this] { return !reaping_; });
  if (reaper_.joinable()) reaper_.join();
}

void SoundPlayer::Play(uint64_t id, const char* data, size_t size, const std::string& speaker,
                       double gain) {
  Stop(id);
  auto sound = std::make_shared<Sound>();
  sound->id = id;
  PcmSound pcm;
  std::string why;
  if (!ReadWav(reinterpret_cast<const uint8_t*>(data), size, &pcm, &why)) {
    Finish(sound, false, why);
    return;
  }
  GstElement* pipeline = gst_pipeline_new(nullptr);
  GstElement* source = gst_element_factory_make("appsrc", nullptr);
  GstElement* convert = gst_element_factory_make("audioconvert", nullptr);
  GstElement* resample = gst_element_factory_make("audioresample", nullptr);
  GstElement* volume = gst_element_factory_make("volume", nullptr);
  GstElement* sink = nullptr;
  if (speaker.empty() || speaker == kNullSpeaker) {
    // Nowhere to play, but in real time, so that the end comes when a speaker's would.
    sink = gst_element_factory_make("fakesink", nullptr);
    if (sink) g_object_set(sink, "sync", TRUE, nullptr);
  } else {
    sink = CreateDeviceElement(Device::kSpeaker, speaker);
  }
  if (!pipeline || !source || !convert || !resample || !volume || !sink) {
    for (GstElement* e : {pipeline, source, convert, resample, volume, sink}) {
      if (e) gst_object_unref(gst_object_ref_sink(e));
    }
    Finish(sound, false, "the speaker '" + speaker + "' could not be opened");
    return;
  }
  sound->pipeline = pipeline;
  sound->deadline = std::chrono::steady_clock::now() +
                    std::chrono::milliseconds(static_cast<long>(pcm.seconds() * 1000)) + kEndMargin;
  gst_bin_add_many(GST_BIN(pipeline), source, convert, resample, volume, sink, nullptr);
  gst_element_link_many(source, convert, resample, volume, sink, nullptr);
  g_object_set(volume, "volume", std::clamp(gain, 0.0, 10.0), nullptr);
  GstCaps* caps = gst_caps_new_simple("audio/x-raw", "format", G_TYPE_STRING, "S16LE", "layout",
                                      G_TYPE_STRING, "interleaved", "rate", G_TYPE_INT, pcm.rate,
                                      "channels", G_TYPE_INT, pcm.channels, nullptr);
  g_object_set(source, "caps", caps, "format", GST_FORMAT_TIME, nullptr);
  gst_caps_unref(caps);
  const size_t bytes = pcm.samples.size() * sizeof(int16_t);
  GstBuffer* buffer = gst_buffer_new_allocate(nullptr, bytes, nullptr);
  gst_buffer_fill(buffer, 0, pcm.samples.data(), bytes);
  GST_BUFFER_PTS(buffer) = 0;
  GST_BUFFER_DURATION(buffer) = static_cast<GstClockTime>(pcm.seconds() * GST_SECOND);
  gst_app_src_push_buffer(GST_APP_SRC(source), buffer);  // takes the buffer
  gst_app_src_end_of_stream(GST_APP_SRC(source));
  GstBus* bus = gst_element_get_bus(pipeline);
  gst_bus_set_sync_handler(bus, &SoundPlayer::OnBus, new BusContext{this, sound},
                           [](gpointer context) { delete static_cast<BusContext*>(context); });
  gst_object_unref(bus);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    sounds_[id] = sound;
    if (!reaping_) {
      if (reaper_.joinable()) reaper_.join();  // a reaper that found nothing left and ended
      reaping_ = true;
      reaper_ = std::thread([this] { Reap(); });
    }
  }
  if (gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    Finish(sound, false, "the speaker '" + speaker + "' did not start");
  }
}

GstBusSyncReply SoundPlayer::OnBus(GstBus*, GstMessage* message, gpointer data) {
  auto* context = static_cast<BusContext*>(data);
  SoundPlayer* player = context->player;
  const GstMessageType type = GST_MESSAGE_TYPE(message);
  std::string reason;
  if (type == GST_MESSAGE_ERROR) {
    GError* problem = nullptr;
    gst_message_parse_error(message, &problem, nullptr);
    reason = std::string("playback error: ") + (problem ? problem->message : "unknown");
    if (problem) g_error_free(problem);
  }
  // A sync handler that drops a message owns it (and the message holds its source element).
  gst_message_unref(message);
  if (type != GST_MESSAGE_EOS && type != GST_MESSAGE_ERROR) return GST_BUS_DROP;
  if (std::shared_ptr<Sound> sound = context->sound.lock()) {
    player->Finish(sound, type == GST_MESSAGE_EOS, reason);
  }
  return GST_BUS_DROP;
}

void SoundPlayer::Finish(const std::shared_ptr<Sound>& sound, bool ended,
                         const std::string& reason) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (sound->finished) return;
    sound->finished = true;
    sound->ended = ended;
    sound->reason = reason;
    auto it = sounds_.find(sound->id);
    if (it != sounds_.end() && it->second == sound) sounds_.erase(it);
    if (sound->pipeline) {
      finished_.push_back(sound);
      wake_.notify_all();
      return;
    }
  }
  // Never started: nothing to tear down, reported at once.
  done_(sound->id, ended, reason);
}

bool SoundPlayer::Stop(uint64_t id) {
  std::shared_ptr<Sound> sound;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = sounds_.find(id);
    if (it == sounds_.end()) return false;
    sound = it->second;
  }
  Finish(sound, true, "");
  return true;
}

size_t SoundPlayer::playing() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sounds_.size();
}

void SoundPlayer::Reap() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (finished_.empty() && sounds_.empty()) break;
    auto deadline = std::chrono::steady_clock::time_point::max();
    for (const auto& entry : sounds_) deadline = std::min(deadline, entry.second->deadline);
    if (finished_.empty() && wake_.wait_until(lock, deadline) == std::cv_status::timeout) {
      std::vector<std::shared_ptr<Sound>> late;
      for (const auto& entry : sounds_) {
        if (entry.second->deadline <= std::chrono::steady_clock::now())
          late.push_back(entry.second);
      }
      lock.unlock();
      for (auto& sound : late) Finish(sound, false, "the speaker did not play the sound in time");
      lock.lock();
    }
    if (finished_.empty()) continue;
    std::vector<std::shared_ptr<Sound>> done;
    done.swap(finished_);
    lock.unlock();
    for (auto& sound : done) {
      gst_element_set_state(sound->pipeline, GST_STATE_NULL);
      gst_object_unref(sound->pipeline);
      sound->pipeline = nullptr;
      done_(sound->id, sound->ended, sound->reason);
    }
    lock.lock();
  }
  reaping_ = false;
  wake_.notify_all();
}

}  // namespace ktopen
