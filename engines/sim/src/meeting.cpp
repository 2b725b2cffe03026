#include "meeting.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "ktengine/meeting_url.h"
#include "numbers.h"
#include "simulation.h"

namespace ktsim {

using ktengine::ReadInt;

namespace {

// ---- Who takes part --------------------------------------------------------------------------

const char* const kFirstNames[] = {
    "Maria",  "James",  "Aiko",   "Lukas", "Priya",  "Omar",  "Sofia",  "Chen",
    "Fatima", "Noah",   "Elena",  "Kwame", "Ingrid", "Mateo", "Yuki",   "Hannah",
    "Ravi",   "Zanele", "Oliver", "Amara", "Pierre", "Leila", "Tomasz", "Grace",
    "Diego",  "Astrid", "Kenji",  "Nadia", "Samuel", "Ines",  "Arjun",  "Freya"};
const char* const kLastNames[] = {
    "Lopez",  "Okafor",  "Tanaka",   "Schmidt", "Patel",    "Haddad", "Rossi",  "Wei",
    "Benali", "Johnson", "Petrova",  "Mensah",  "Larsen",   "Garcia", "Sato",   "Becker",
    "Iyer",   "Dlamini", "Bennett",  "Nwosu",   "Dubois",   "Karimi", "Nowak",  "Kim",
    "Silva",  "Nilsson", "Watanabe", "Haddou",  "Andersen", "Moreau", "Sharma", "Murphy"};
const char* const kDomains[] = {"example.com", "example.org", "corp.example.net",
                                "lab.example.edu"};
const char* const kSites[] = {"Berlin Office",      "Home Office",      "London HQ",
                              "Conference Room 4B", "Tokyo Office",     "Remote",
                              "Lisbon Hub",         "Nairobi Office",   "Huddle Room 2",
                              "Toronto Office",     "Co-working Space", "Sydney Office"};
const char* const kCameraModels[] = {"Lumen HD Camera", "Orbis VX20 Webcam", "Integrated Webcam",
                                     "Orbis Quattro 4K", "USB Video Device"};
struct CameraMode {
  const char* codec;
  int width, height;
};
const CameraMode kRemoteModes[] = {{"H.264 720p (30FPS)", 1280, 720},
                                   {"H.264 360p (30FPS)", 640, 360},
                                   {"VP8 720p (30FPS)", 1280, 720},
                                   {"H.264 360p (30FPS)", 640, 360},
                                   {"VP8 360p (30FPS)", 640, 360}};
constexpr int kScreenWidth = 1280, kScreenHeight = 800;
constexpr int kMaxFrameWidth = 3840, kMaxFrameHeight = 2160;

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

uint32_t Fnv1a(const std::string& text) {
  uint32_t h = 2166136261u;
  for (unsigned char c : text) h = (h ^ c) * 16777619u;
  return h;
}

// The size and frame rate a send profile stands for ("H.264 720p (30FPS)", "VP8 4K (10FPS)").
void ProfileSize(const std::string& profile, bool screen, int* width, int* height, int* fps) {
  *width = screen ? kScreenWidth : 640;
  *height = screen ? kScreenHeight : 360;
  *fps = screen ? 10 : 30;
  if (!screen) {
    if (profile.find("1080p") != std::string::npos) {
      *width = 1920;
      *height = 1080;
    } else if (profile.find("720p") != std::string::npos) {
      *width = 1280;
      *height = 720;
    }
  }
  const size_t f = profile.find("FPS)");
  if (f != std::string::npos) {
    size_t b = profile.rfind('(', f);
    long value = 0;
    if (b != std::string::npos && ReadInt(profile.substr(b + 1, f - b - 1), 1, 60, &value)) {
      *fps = static_cast<int>(value);
    }
  } else if (profile.find("Lossless") != std::string::npos) {
    *fps = 5;
  }
}

}  // namespace

// ---- Options ---------------------------------------------------------------------------------

void Options::Apply(const std::string& query) {
  size_t pos = 0;
  while (pos <= query.size()) {
    size_t end = query.find_first_of("&;", pos);
    if (end == std::string::npos) end = query.size();
    const std::string pair = query.substr(pos, end - pos);
    pos = end + 1;
    const size_t eq = pair.find('=');
    if (eq == std::string::npos) continue;
    const std::string key = Lower(pair.substr(0, eq));
    const std::string text = pair.substr(eq + 1);
    long v = 0;
    if (key == "participants" && ReadInt(text, 0, 1000, &v)) {
      participants = static_cast<int>(v);
    } else if (key == "seed" && ReadInt(text, 0, 4294967295L, &v)) {
      seed = static_cast<uint32_t>(v);
      has_seed = true;
    } else if (key == "churn") {
      char* stop = nullptr;
      const double seconds = std::strtod(text.c_str(), &stop);
      if (!text.empty() && stop && *stop == '\0' && seconds >= 0 && seconds <= 86400) {
        churn = seconds;
      }
    } else if (key == "screen" && ReadInt(text, 0, 1, &v)) {
      screen = v == 1;
    } else if (key == "fps" && ReadInt(text, 1, 60, &v)) {
      fps = static_cast<int>(v);
    } else if (key == "muted" && ReadInt(text, 0, 1000, &v)) {
      muted = static_cast<int>(v);
    } else if (key == "phone" && ReadInt(text, 0, 1000, &v)) {
      phone = static_cast<int>(v);
    } else if (key == "tick" && ReadInt(text, 20, 1000, &v)) {
      tick = static_cast<int>(v);
    } else if (key == "conditions" && ReadInt(text, 100, 10000, &v)) {
      conditions = static_cast<int>(v);
    } else if (key == "start" && ReadInt(text, 0, 5000, &v)) {
      start = static_cast<int>(v);
    }
  }
}

// ---- Life cycle ------------------------------------------------------------------------------

Meeting& Meeting::Get() {
  static Meeting* const meeting = new Meeting();  // never destroyed, like the Simulation
  return *meeting;
}

Meeting::Meeting() { ResetDevicesLocked(); }

void Meeting::ResetDevicesLocked() {
  inputs_ = {{"mic-builtin", "Quillbook Microphone", true, false},
             {"mic-headset", "USB Headset Microphone", false, false},
             {"mic-array", "Conference Speakerphone", false, false}};
  outputs_ = {{"spk-builtin", "Quillbook Speakers", true, false},
              {"spk-headset", "USB Headset", false, false},
              {"spk-display", "Vantor Display Speakers", false, false}};
  cameras_ = {
      {"cam-lumen",
       "Lumen HD Camera",
       false,
       {"H.264 360p (30FPS)", "H.264 720p (30FPS)", "VP8 720p (30FPS)"},
       ""},
      {"cam-usb-vx20",
       "Orbis VX20 Webcam",
       false,
       {"H.264 360p (30FPS)", "H.264 720p (30FPS)", "H.264 1080p (30FPS)"},
       ""},
      {"screen-main", "Built-in Lumen Display", true, {"VP8 4K (10FPS)", "ffv1 Lossless"}, ""}};
  volumes_.clear();
  switches_.clear();
}

void Meeting::Enable(bool on) {
  if (!on) End();
  std::lock_guard<std::mutex> lock(mutex_);
  enabled_ = on;
}

bool Meeting::enabled() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return enabled_;
}

void Meeting::Configure(const std::string& options) {
  std::lock_guard<std::mutex> lock(mutex_);
  base_options_ = options;
}

bool Meeting::running() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return running_;
}

int Meeting::participants() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return running_ ? static_cast<int>(bots_.size()) : 0;
}

bool Meeting::clock_running() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return clock_running_;
}

int Meeting::Volume(const std::string& id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = volumes_.find(id);
  return it == volumes_.end() ? -1 : it->second;
}

void Meeting::Reset() {
  End();
  std::lock_guard<std::mutex> lock(mutex_);
  enabled_ = false;
  base_options_.clear();
  ResetDevicesLocked();
}

bool Meeting::Connect(ktsim_engine engine, const std::string& url, const std::string& display_name,
                      const std::string& uuid, std::string* error) {
  ktengine::MeetingUrl parsed;
  if (!ktengine::ParseMeetingUrl(url, engine == KTSIM_VIDEO ? '6' : '4', &parsed)) {
    return Fail(error, "Invalid server URL '" + url + "'");
  }
  const std::string& meeting_id = parsed.meeting;
  const std::string& query = parsed.query;

  std::lock_guard<std::mutex> life(lifecycle_);
  std::lock_guard<std::mutex> lock(mutex_);
  local_uuid_ = uuid;
  local_name_ = display_name;
  if (engine == KTSIM_AUDIO) {
    audio_connected_ = true;
    if (running_ && announced_) {
      for (auto& entry : bots_) AnnounceAudioLocked(entry.second);
    }
    return true;
  }
  if (!running_) StartLocked(meeting_id, query);
  return true;
}

void Meeting::StartLocked(const std::string& meeting_id, const std::string& query) {
  options_ = Options();
  options_.Apply(base_options_);
  options_.Apply(query);
  rng_.seed(options_.has_seed ? options_.seed : Fnv1a(meeting_id));
  running_ = true;
  announced_ = false;
  tag_ = next_tag_++;
  // Local sources switched on before the join stay, now under the local participant's identity.
  ids_.clear();
  for (auto it = streams_.begin(); it != streams_.end();) {
    if (!it->second.local) {
      it = streams_.erase(it);
      continue;
    }
    it->second.owner = it->second.email = local_uuid_;
    it->second.announced = false;
    ids_.insert(it->first);
    ++it;
  }
  bots_.clear();
  pending_video_.clear();
  pending_audio_removal_.clear();
  speaker_.clear();
  arrivals_ = 0;
  local_burst_ = 0;

  const int n = options_.participants;
  const int muted = options_.muted >= 0 ? options_.muted : n / 3;
  const int phone = options_.phone >= 0 ? options_.phone : (n >= 4 ? 1 : 0);
  for (int i = 0; i < n; ++i) AddBotLocked(false);
  // The last arrivals dial in by phone, the first ones are muted, the second one shares.
  int k = 0;
  std::vector<Bot*> order;
  for (auto& entry : bots_) order.push_back(&entry.second);
  std::sort(order.begin(), order.end(), [](Bot* a, Bot* b) { return a->joined < b->joined; });
  for (Bot* bot : order) {
    bot->muted = k < muted;
    if (k >= n - phone) {
      bot->phone = true;
      if (!bot->camera_id.empty()) {
        streams_.erase(bot->camera_id);
        bot->camera_id.clear();
      }
      bot->site = "Dial-in";
    }
    ++k;
  }
  if (options_.screen) {
    for (Bot* bot : order) {
      if (bot->phone || (order.size() > 1 && bot == order.front())) continue;
      Stream screen;
      screen.id = NewIdLocked();
      screen.owner = bot->email;
      screen.email = bot->email;
      screen.site = bot->site;
      screen.name = bot->name + " - Screen Capture";
      screen.codec = "VP8 4K (10FPS)";
      screen.layout = 1;
      screen.width = kScreenWidth;
      screen.height = kScreenHeight;
      screen.fps = std::min(10, std::max(1, options_.fps / 3));
      screen.picture = bot->picture;
      screen.picture.kind = Picture::kScreen;
      bot->screen_id = screen.id;
      streams_[screen.id] = screen;
      break;
    }
  }
  const Clock::time_point now = Clock::now();
  start_at_ = now + std::chrono::milliseconds(options_.start);
  turn_end_ = start_at_ + std::chrono::milliseconds(Uniform(300, 1200));
  next_conditions_ = start_at_ + std::chrono::milliseconds(options_.conditions);
  next_churn_ = start_at_ + std::chrono::milliseconds(
                                static_cast<int64_t>(options_.churn * 1000 * (0.5 + Unit())));
  next_occasional_ = start_at_ + std::chrono::milliseconds(Uniform(6000, 15000));
  EnsureClockLocked();
}

void Meeting::EnsureClockLocked() {
  if (clock_running_) return;
  if (clock_.joinable()) clock_.join();  // it ended by itself and needs the lock no more
  clock_running_ = true;
  stop_ = false;
  clock_ = std::thread(&Meeting::ClockLoop, this);
}

void Meeting::ClockLoop() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stop_ && (running_ || !sounds_.empty())) {
    const Clock::time_point now = Clock::now();
    TickLocked(now);
    const int tick = running_ ? options_.tick : 20;
    wake_.wait_until(lock, now + std::chrono::milliseconds(tick), [this] { return stop_; });
  }
  clock_running_ = false;
}

void Meeting::End() {
  std::lock_guard<std::mutex> life(lifecycle_);
  uint64_t tag = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    tag = tag_;
    for (auto& entry : streams_) {
      if (entry.second.frame) frames::Release(entry.second.frame);
    }
    running_ = false;
    audio_connected_ = false;
    announced_ = false;
    tag_ = 0;
    bots_.clear();
    streams_.clear();
    pending_video_.clear();
    pending_audio_removal_.clear();
    sounds_.clear();
    for (VideoDevice& device : cameras_) device.stream_id.clear();
    stop_ = true;
    wake_.notify_all();
  }
  if (clock_.joinable()) clock_.join();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = false;
  }
  if (tag != 0) {
    Simulation::Get().queue(KTSIM_AUDIO).Discard(tag, false);
    Simulation::Get().queue(KTSIM_VIDEO).Discard(tag, false);
  }
}

// ---- Events ----------------------------------------------------------------------------------

uint64_t Meeting::Send(ktsim_engine engine, const std::string& xml) {
  return Simulation::Get().queue(engine).PushEvent(xml, tag_);
}

uint32_t Meeting::Rand() { return static_cast<uint32_t>(rng_()); }

int Meeting::Uniform(int lo, int hi) {
  return lo + static_cast<int>(Rand() % static_cast<uint32_t>(hi - lo + 1));
}

double Meeting::Unit() { return Rand() / 4294967296.0; }

Meeting::Stream* Meeting::RandomCamera(const std::vector<Stream*>& streams) {
  std::vector<Stream*> cameras;
  for (Stream* s : streams) {
    if (s->picture.kind == Picture::kCamera || s->picture.kind == Picture::kCameraOff) {
      cameras.push_back(s);
    }
  }
  return cameras.empty() ? nullptr : cameras[Rand() % cameras.size()];
}

std::string Meeting::NewIdLocked() {
  for (;;) {
    std::string id = std::to_string(1000000000ull + Rand() % 3000000000ull);
    if (ids_.insert(id).second) return id;
  }
}

void Meeting::AddBotLocked(bool announce_now) {
  Bot bot;
  const uint64_t n = arrivals_++;
  const std::string first = kFirstNames[Rand() % (sizeof kFirstNames / sizeof *kFirstNames)];
  const std::string last = kLastNames[Rand() % (sizeof kLastNames / sizeof *kLastNames)];
  bot.name = first + " " + last;
  std::string email =
      Lower(first + "." + last) + "@" + kDomains[Rand() % (sizeof kDomains / sizeof *kDomains)];
  for (int i = 2; bots_.count(email); ++i) {
    email = Lower(first + "." + last) + std::to_string(i) + email.substr(email.find('@'));
  }
  bot.email = email;
  bot.site = kSites[Rand() % (sizeof kSites / sizeof *kSites)];
  bot.camera_model = kCameraModels[Rand() % (sizeof kCameraModels / sizeof *kCameraModels)];
  bot.talk = 0.3 + 2.0 * Unit();
  bot.joined = n;
  bot.picture.seed = Rand();
  // Well-separated hues: the golden angle around the colour wheel.
  const double hue = std::fmod(n * 137.508 + (bot.picture.seed % 360), 360.0) / 60.0;
  const int sector = static_cast<int>(hue) % 6;
  const int f = static_cast<int>((hue - std::floor(hue)) * 200) + 40;
  const int table[6][3] = {{240, f, 40},       {240 - f, 240, 40}, {40, 240, f},
                           {40, 240 - f, 240}, {f, 40, 240},       {240, 40, 240 - f}};
  for (int c = 0; c < 3; ++c) bot.picture.rgb[c] = static_cast<uint8_t>(table[sector][c]);
  bot.audio_id = NewIdLocked();

  Stream camera;
  camera.id = NewIdLocked();
  camera.owner = bot.email;
  camera.email = bot.email;
  camera.site = bot.site;
  camera.name = bot.name + " - " + bot.camera_model;
  const CameraMode& mode = kRemoteModes[Rand() % (sizeof kRemoteModes / sizeof *kRemoteModes)];
  camera.codec = mode.codec;
  camera.width = mode.width;
  camera.height = mode.height;
  camera.fps = options_.fps;
  camera.picture = bot.picture;
  bot.camera_id = camera.id;
  streams_[camera.id] = camera;

  const std::string key = bot.email;
  bots_[key] = bot;
  if (announce_now) {
    AnnounceAudioLocked(bots_[key]);
    pending_video_.push_back(camera.id);
  }
}

void Meeting::AnnounceAudioLocked(Bot& bot) {
  if (!audio_connected_) return;
  bot.audio_announced = true;
  Send(KTSIM_AUDIO, StreamEvent("audio_site_changed", bot.audio_id,
                                Tag("site", bot.site) + Tag("email", bot.email)));
}

void Meeting::AnnounceVideoLocked(Stream& s) {
  s.announced = true;
  std::string inner = Tag("email", s.email) + Tag("site", s.site) + Tag("name", s.name);
  if (!s.device_name.empty()) inner += Tag("device_name", s.device_name);
  inner += Tag("codecName", s.codec) + Tag("local", s.local ? "true" : "false") +
           Tag("active", s.active ? "true" : "false") + Tag("layout", s.layout) +
           Tag("width", s.width) + Tag("height", s.height);
  Send(KTSIM_VIDEO, StreamEvent("video_site_changed", s.id, inner));
}

void Meeting::RemoveStreamLocked(const std::string& id, bool announce) {
  auto it = streams_.find(id);
  if (it == streams_.end()) return;
  if (announce && it->second.announced) {
    video_removal_seq_ = Send(KTSIM_VIDEO, StreamEvent("video_stream_removed", id, ""));
  }
  if (it->second.frame) frames::Release(it->second.frame);
  streams_.erase(it);
  pending_video_.erase(std::remove(pending_video_.begin(), pending_video_.end(), id),
                       pending_video_.end());
}

void Meeting::DepartLocked(const std::string& email) {
  auto it = bots_.find(email);
  if (it == bots_.end()) return;
  Bot& bot = it->second;
  RemoveStreamLocked(bot.camera_id, true);
  RemoveStreamLocked(bot.screen_id, true);
  // The participant's audio ends a moment after its video, as a real client hangs up, and never
  // before the video's removal has been delivered on the other engine thread.
  if (bot.audio_announced) pending_audio_removal_.push_back(bot.audio_id);
  if (speaker_ == email) speaker_.clear();
  bots_.erase(it);
}

bool Meeting::Arrive() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!running_) return false;
  AddBotLocked(announced_);
  return true;
}

bool Meeting::Depart() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!running_ || bots_.empty()) return false;
  auto latest = bots_.begin();
  for (auto it = bots_.begin(); it != bots_.end(); ++it) {
    if (it->second.joined > latest->second.joined) latest = it;
  }
  if (!announced_) {  // nobody has heard of it yet
    Bot& bot = latest->second;
    RemoveStreamLocked(bot.camera_id, false);
    RemoveStreamLocked(bot.screen_id, false);
    bots_.erase(latest);
    return true;
  }
  DepartLocked(latest->first);
  return true;
}

void Meeting::TickLocked(Clock::time_point now) {
  // Sounds end whether or not a meeting runs.
  for (auto it = sounds_.begin(); it != sounds_.end();) {
    if (now < it->second.end) {
      ++it;
      continue;
    }
    const std::string id = std::to_string(reinterpret_cast<uintptr_t>(it->first));
    Send(KTSIM_AUDIO, std::string("<event name=\"") +
                          (it->second.fails ? "binary_playback_failed" : "binary_playback_ended") +
                          "\">" + Tag("data", id) + "</event>");
    it = sounds_.erase(it);
  }
  if (!running_ || now < start_at_) return;

  if (!announced_) {
    announced_ = true;
    for (auto& entry : bots_) AnnounceAudioLocked(entry.second);
    for (auto& entry : streams_) AnnounceVideoLocked(entry.second);
    pending_video_.clear();
    return;
  }
  if (Simulation::Get().queue(KTSIM_VIDEO).Delivered(video_removal_seq_)) {
    for (const std::string& id : pending_audio_removal_) {
      if (audio_connected_) Send(KTSIM_AUDIO, StreamEvent("audio_stream_removed", id, ""));
    }
    pending_audio_removal_.clear();
  }
  for (const std::string& id : pending_video_) {
    auto it = streams_.find(id);
    if (it != streams_.end() && !it->second.announced) AnnounceVideoLocked(it->second);
  }
  pending_video_.clear();

  TalkLocked(now);
  MetersLocked();
  if (now >= next_conditions_) {
    next_conditions_ = now + std::chrono::milliseconds(options_.conditions);
    ConditionsLocked();
  }
  if (options_.churn > 0 && now >= next_churn_) {
    next_churn_ = now + std::chrono::milliseconds(
                            static_cast<int64_t>(options_.churn * 1000 * (0.5 + Unit())));
    const int present = static_cast<int>(bots_.size());
    const int target = options_.participants;
    const bool arrive =
        present < target - 1 || (present <= target + 1 && Unit() < 0.5) || present == 0;
    if (arrive) {
      AddBotLocked(true);
    } else {
      auto it = bots_.begin();
      std::advance(it, Rand() % bots_.size());
      DepartLocked(it->first);
    }
  }
  if (now >= next_occasional_) {
    next_occasional_ = now + std::chrono::milliseconds(Uniform(8000, 20000));
    OccasionalLocked();
  }
}

void Meeting::TalkLocked(Clock::time_point now) {
  if (now >= turn_end_) {
    if (!speaker_.empty()) {  // a pause between two speakers
      speaker_.clear();
      turn_end_ = now + std::chrono::milliseconds(Uniform(300, 1500));
    } else if (!bots_.empty()) {
      double total = 0;
      for (auto& entry : bots_) total += entry.second.talk;
      double pick = Unit() * total;
      for (auto& entry : bots_) {
        pick -= entry.second.talk;
        if (pick <= 0) {
          speaker_ = entry.first;
          break;
        }
      }
      if (speaker_.empty()) speaker_ = bots_.begin()->first;
      Bot& bot = bots_[speaker_];
      if (bot.muted) {
        if (Unit() < 0.7) {
          bot.muted = false;  // "sorry, I was on mute"
        } else {
          speaker_.clear();
        }
      }
      turn_end_ = now + std::chrono::milliseconds(speaker_.empty() ? 800 : Uniform(2000, 9000));
    }
  }
  for (auto& entry : bots_) {
    Bot& bot = entry.second;
    if (bot.muted) {
      bot.amplitude = 0;
    } else if (entry.first == speaker_) {
      bot.amplitude = Unit() < 0.18 ? Uniform(2, 10) : Uniform(35, 90);  // words and gaps
    } else if (bot.backchannel > 0) {
      --bot.backchannel;
      bot.amplitude = Uniform(15, 35);
    } else {
      bot.amplitude = Uniform(0, 3);
      if (Unit() < 0.004) bot.backchannel = Uniform(2, 5);  // "mm-hm"
    }
    auto camera = streams_.find(bot.camera_id);
    if (camera != streams_.end()) camera->second.picture.speaking = bot.amplitude > 30;
    if (!bot.audio_announced) continue;
    const bool changed = bot.last_sent < 0 || bot.muted != bot.last_muted ||
                         std::abs(bot.amplitude - bot.last_sent) >= 4;
    if (!changed && ++bot.quiet_ticks < 1000 / options_.tick) continue;
    bot.quiet_ticks = 0;
    bot.last_sent = bot.amplitude;
    bot.last_muted = bot.muted;
    Send(KTSIM_AUDIO, "<event name=\"amplitude\"><stream id=\"" + bot.audio_id + "\" muted=\"" +
                          (bot.muted ? "true" : "false") + "\">" + Tag("amplitude", bot.amplitude) +
                          "</stream></event>");
  }
}

void Meeting::MetersLocked() {
  if (!audio_connected_) return;
  const AudioDevice* mic = nullptr;
  for (const AudioDevice& d : inputs_) mic = d.enabled ? &d : mic;
  const AudioDevice* speakers = nullptr;
  for (const AudioDevice& d : outputs_) speakers = d.enabled ? &d : speakers;
  auto volume = [this](const std::string& id, int fallback) {
    auto it = volumes_.find(id);
    return it == volumes_.end() ? fallback : it->second;
  };
  if (mic) {
    if (local_burst_ > 0) {
      --local_burst_;
    } else if (speaker_.empty() && Unit() < 0.01) {
      local_burst_ = Uniform(10, 40);
    }
    const int level = local_burst_ > 0 ? Uniform(30, 70) : Uniform(2, 8);
    Send(KTSIM_AUDIO, "<event name=\"input_meter\">" +
                          Tag("meter", std::min(100, level * volume(mic->id, 100) / 100)) +
                          "</event>");
  }
  if (speakers) {
    int loudest = 0;
    for (const auto& entry : bots_) {
      const Bot& bot = entry.second;
      if (bot.audio_announced) {
        loudest = std::max(loudest, bot.amplitude * volume(bot.audio_id, 50) / 50);
      }
    }
    Send(KTSIM_AUDIO, "<event name=\"output_meter\">" +
                          Tag("meter", std::min(100, loudest * volume(speakers->id, 50) / 50)) +
                          "</event>");
  }
}

void Meeting::ConditionsLocked() {
  int audible = 0, rendering = 0;
  for (const auto& entry : bots_) audible += entry.second.audio_announced ? 1 : 0;
  for (const auto& entry : streams_) rendering += entry.second.rendering ? 1 : 0;
  bool mic = false;
  for (const AudioDevice& d : inputs_) mic = mic || d.enabled;
  const int r = Uniform(0, 99);
  const int bars = r < 80 ? 5 : r < 95 ? 4 : 3;
  const std::string common = Tag("data_bytes_dropped", Uniform(0, 99) < 5 ? Uniform(40, 800) : 0) +
                             Tag("ctrl_bytes_dropped", Uniform(0, 99) < 2 ? Uniform(10, 120) : 0) +
                             Tag("cpu_usage", Uniform(4, 15) + rendering) + Tag("bars", bars);
  if (audio_connected_) {
    Send(KTSIM_AUDIO, "<event name=\"audio_update_conditions\"><conditions>" +
                          Tag("received", 3000 * audible + Uniform(0, 400)) +
                          Tag("sent", mic ? 3000 + Uniform(0, 200) : 0) + common +
                          "<upstream loss=\"" + std::to_string(Uniform(0, 2)) + "\" latency=\"" +
                          std::to_string(Uniform(25, 45)) + "\"/><downstream loss=\"" +
                          std::to_string(Uniform(0, 3)) + "\" latency=\"" +
                          std::to_string(Uniform(30, 60)) + "\"/></conditions></event>");
  }
  int local = 0;
  for (const auto& entry : streams_) local += entry.second.local ? 1 : 0;
  Send(KTSIM_VIDEO, "<event name=\"video_update_conditions\"><conditions>" +
                        Tag("received", 90000 * rendering + Uniform(0, 5000)) +
                        Tag("sent", 120000 * local) + common + "</conditions></event>");
}

void Meeting::OccasionalLocked() {
  std::vector<Stream*> remote;
  for (auto& entry : streams_) {
    if (!entry.second.local && entry.second.announced) remote.push_back(&entry.second);
  }
  switch (Uniform(0, 3)) {
    case 0: {  // someone mutes or unmutes
      if (bots_.empty()) return;
      auto it = bots_.begin();
      std::advance(it, Rand() % bots_.size());
      if (it->first != speaker_) it->second.muted = !it->second.muted;
      return;
    }
    case 1: {  // a sender changes its layout
      if (remote.empty()) return;
      Stream& s = *remote[Rand() % remote.size()];
      s.layout = (s.layout + 1) % 3;
      Send(KTSIM_VIDEO, StreamEvent("remote_layout_changed", s.id, Tag("layout", s.layout)));
      return;
    }
    case 2: {  // a camera adapts its resolution to the link
      Stream* camera = RandomCamera(remote);
      if (camera == nullptr) return;
      Stream& s = *camera;
      const bool down = s.width > 640;
      s.width = down ? 640 : 1280;
      s.height = down ? 360 : 720;
      Send(KTSIM_VIDEO,
           StreamEvent("video_stream_size_changed", s.id,
                       "<window>" + Tag("width", s.width) + Tag("height", s.height) + "</window>"));
      return;
    }
    default: {  // someone turns the camera off or back on
      Stream* camera = RandomCamera(remote);
      if (camera == nullptr) return;
      Stream& s = *camera;
      s.active = !s.active;
      s.picture.kind = s.active ? Picture::kCamera : Picture::kCameraOff;
      AnnounceVideoLocked(s);
      return;
    }
  }
}

// ---- Sounds and frames -----------------------------------------------------------------------

bool Meeting::PlaySound(const void* data, unsigned long size) {
  std::lock_guard<std::mutex> life(lifecycle_);
  std::lock_guard<std::mutex> lock(mutex_);
  // 16-bit mono at 16 kHz: 32 bytes a millisecond; too short to be a sound fails.
  const long ms = std::clamp(static_cast<long>(size / 32), 200L, 10000L);
  sounds_[data] = Sound{Clock::now() + std::chrono::milliseconds(ms), size < 4};
  EnsureClockLocked();
  return true;
}

bool Meeting::StopSound(const void* data) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = sounds_.find(data);
  if (it == sounds_.end()) return false;
  it->second.end = Clock::now();  // the clock reports the end on its next tick
  wake_.notify_all();
  return true;
}

int Meeting::PollFrame(const std::string& stream_id) {
  ktsim_frame* frame = nullptr;
  Picture picture;
  int64_t index = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = streams_.find(stream_id);
    if (it == streams_.end()) return -1;
    Stream& s = it->second;
    if (!s.rendering || s.frame == nullptr) return 0;
    const double elapsed = std::chrono::duration<double>(Clock::now() - s.render_start).count();
    index = static_cast<int64_t>(elapsed * s.fps);
    if (index == s.last_index) return 0;
    s.last_index = index;
    frame = s.frame;
    picture = s.picture;
  }
  // Written outside mutex_: the descriptor has its own writer lock, and is never freed.
  frames::Write(frame, picture, static_cast<uint64_t>(index));
  return 1;
}

// ---- Commands --------------------------------------------------------------------------------

bool Meeting::Command(ktsim_engine engine, const std::string& xml, std::string* error) {
  std::string why;
  std::unique_ptr<Node> root = ktengine::ParseCommand(xml, &why);
  if (!root) return Fail(error, "Malformed command: " + why);
  const char* expected = engine == KTSIM_VIDEO ? "video" : "audio";
  if (root->name != expected) {
    return Fail(error, std::string("Unsupported command <") + root->name + ">, expected <" +
                           expected + ">");
  }
  if (root->children.empty()) return Fail(error, std::string("Empty <") + expected + "> command");
  std::lock_guard<std::mutex> lock(mutex_);
  const bool audio = engine == KTSIM_AUDIO;
  if (!(audio ? AudioCommandLocked(*root, false, error)
              : VideoCommandLocked(*root, false, error))) {
    return false;
  }
  return audio ? AudioCommandLocked(*root, true, error) : VideoCommandLocked(*root, true, error);
}

bool Meeting::AudioCommandLocked(const Node& root, bool apply, std::string* error) {
  for (const auto& child : root.children) {
    const std::string& what = child->name;
    if (what == "input" || what == "output") {
      std::vector<AudioDevice>& devices = what == "input" ? inputs_ : outputs_;
      if (child->children.empty()) return Fail(error, "Empty <" + what + "> element");
      for (const auto& d : child->children) {
        if (d->name != "device")
          return Fail(error, "Unsupported element <" + d->name + "> in <" + what + ">");
        const std::string* id = d->Attribute("id");
        if (id == nullptr || id->empty())
          return Fail(error, "Missing audio " + what + " device id");
        auto device = std::find_if(devices.begin(), devices.end(),
                                   [&](const AudioDevice& a) { return a.id == *id; });
        if (device == devices.end())
          return Fail(error, "Unknown audio " + what + " device '" + *id + "'");
        if (d->children.empty()) return Fail(error, "Nothing to change for device '" + *id + "'");
        for (const auto& setting : d->children) {
          long value = 0;
          bool on = false;
          if (setting->name == "enable") {
            if (!ReadFlag(*setting, &on, error)) return false;
            if (apply) {
              if (on) {
                for (AudioDevice& other : devices) other.enabled = false;  // one at a time
              }
              device->enabled = on;
            }
          } else if (setting->name == "volume") {
            if (!ReadInt(setting->text, 0, 255, &value)) {
              return Fail(error, "Invalid volume '" + setting->text + "'");
            }
            if (apply) volumes_[*id] = static_cast<int>(value);
          } else if (setting->name == "profile") {
            if (setting->text.compare(0, 5, "opus-") != 0) {
              return Fail(error, "Unsupported audio profile '" + setting->text + "'");
            }
          } else {
            return Fail(error, "Unsupported element <" + setting->name + "> in audio device");
          }
        }
      }
    } else if (what == "streams") {
      if (child->children.empty()) return Fail(error, "Empty <streams> element");
      for (const auto& s : child->children) {
        const std::string* id = s->Attribute("id");
        if (s->name != "stream" || id == nullptr)
          return Fail(error, "Malformed audio stream element");
        // Any stream of this meeting, including one whose participant just left: the product
        // sets a volume in answer to an announcement that may cross the departure.
        if (!running_ || ids_.count(*id) == 0) {
          return Fail(error, "Unknown audio stream '" + *id + "'");
        }
        const std::string* volume = TextOf(*s, "volume");
        long value = 0;
        if (volume == nullptr) return Fail(error, "Missing volume for audio stream '" + *id + "'");
        if (!ReadInt(*volume, 0, 255, &value))
          return Fail(error, "Invalid volume '" + *volume + "'");
        if (apply) volumes_[*id] = static_cast<int>(value);
      }
    } else if (ktengine::IsAudioSwitch(what)) {
      bool on = false;
      if (!ktengine::ReadSwitch(*child, &on, error)) return false;
      if (apply) switches_[what] = on;
    } else {
      return Fail(error, "Unsupported element <" + what + "> in audio command");
    }
  }
  return true;
}

bool Meeting::VideoCommandLocked(const Node& root, bool apply, std::string* error) {
  for (const auto& child : root.children) {
    const std::string& what = child->name;
    if (what == "devices" || what == "streams") {
      if (child->children.empty()) return Fail(error, "Empty <" + what + "> element");
      for (const auto& item : child->children) {
        const bool ok = what == "devices" ? VideoDeviceLocked(*item, apply, error)
                                          : VideoStreamLocked(*item, apply, error);
        if (!ok) return false;
      }
    } else if (what == "local_url") {
      if (!LocalUrlLocked(*child, apply, error)) return false;
    } else {
      return Fail(error, "Unsupported element <" + what + "> in video command");
    }
  }
  return true;
}

std::string Meeting::AddLocalStreamLocked(const std::string& name, const std::string& device_name,
                                          const std::string& site, const std::string& codec,
                                          Picture::Kind kind) {
  Stream s;
  s.id = NewIdLocked();
  s.owner = local_uuid_;
  s.email = local_uuid_;
  s.site = site.empty() ? local_name_ : site;
  s.name = name;
  s.device_name = device_name;
  s.codec = codec;
  s.local = true;
  ProfileSize(codec, kind == Picture::kScreen, &s.width, &s.height, &s.fps);
  if (kind == Picture::kNetwork) {
    s.width = 1280;
    s.height = 720;
  }
  s.picture.kind = kind;
  s.picture.seed = Fnv1a(local_uuid_ + name);
  s.picture.rgb[0] = 90;
  s.picture.rgb[1] = 160;
  s.picture.rgb[2] = 230;
  streams_[s.id] = s;
  // Announced now when the meeting is under way; otherwise with the opening announcement.
  if (running_ && announced_) AnnounceVideoLocked(streams_[s.id]);
  return s.id;
}

bool Meeting::VideoDeviceLocked(const Node& d, bool apply, std::string* error) {
  const std::string* id = d.Attribute("id");
  if (d.name != "device" || id == nullptr || id->empty()) {
    return Fail(error, "Malformed video device element");
  }
  auto device = std::find_if(cameras_.begin(), cameras_.end(),
                             [&](const VideoDevice& v) { return v.id == *id; });
  if (device == cameras_.end()) return Fail(error, "Unknown video device '" + *id + "'");
  const std::string* enable = TextOf(d, "enable");
  if (enable == nullptr) return Fail(error, "Missing <enable> for video device '" + *id + "'");
  bool on = false;
  if (!ReadFlag(*d.Child("enable"), &on, error)) return false;
  const std::string* profile = TextOf(d, "profile");
  if (on) {
    if (profile == nullptr) return Fail(error, "Missing <profile> for video device '" + *id + "'");
    if (std::find(device->codecs.begin(), device->codecs.end(), *profile) == device->codecs.end()) {
      return Fail(error, "Unsupported profile '" + *profile + "' for video device '" + *id + "'");
    }
  }
  if (!apply) return true;
  if (!device->stream_id.empty()) {  // a new profile replaces the running capture
    RemoveStreamLocked(device->stream_id, true);
    device->stream_id.clear();
  }
  if (on) {
    const std::string* name = TextOf(d, "name");
    const std::string* site = TextOf(d, "site");
    const std::string shown = device->screen ? "Screen Capture - " + device->name : device->name;
    device->stream_id =
        AddLocalStreamLocked(name ? *name : *id, shown, site ? *site : "", *profile,
                             device->screen ? Picture::kScreen : Picture::kLocalCamera);
  }
  return true;
}

bool Meeting::LocalUrlLocked(const Node& node, bool apply, std::string* error) {
  const std::string* url = TextOf(node, "url");
  const std::string* command = TextOf(node, "command");
  if (url == nullptr || url->empty()) return Fail(error, "Missing <url> in <local_url>");
  if (command == nullptr) return Fail(error, "Missing <command> in <local_url>");
  auto playing = std::find_if(streams_.begin(), streams_.end(), [&](const auto& entry) {
    return entry.second.local && entry.second.url == *url;
  });
  if (*command == "playback_start") {
    const std::string* profile = TextOf(node, "profile");
    if (profile == nullptr || profile->empty())
      return Fail(error, "Missing <profile> in <local_url>");
    if (!apply) return true;
    if (playing != streams_.end()) RemoveStreamLocked(playing->first, true);
    const std::string* name = TextOf(node, "name");
    const std::string id =
        AddLocalStreamLocked(name ? *name : "", "", "", *profile, Picture::kNetwork);
    streams_[id].url = *url;
    return true;
  }
  if (*command == "playback_stop") {
    if (playing == streams_.end())
      return Fail(error, "No network video playing from '" + *url + "'");
    if (apply) RemoveStreamLocked(playing->first, true);
    return true;
  }
  return Fail(error, "Unsupported local_url command '" + *command + "'");
}

bool Meeting::VideoStreamLocked(const Node& node, bool apply, std::string* error) {
  const std::string* id = node.Attribute("id");
  if (node.name != "stream" || id == nullptr) return Fail(error, "Malformed video stream element");
  auto it = streams_.find(*id);
  if (it == streams_.end()) return Fail(error, "Unknown video stream '" + *id + "'");
  Stream& s = it->second;
  if (node.children.empty()) return Fail(error, "Nothing to change for video stream '" + *id + "'");
  for (const auto& setting : node.children) {
    bool on = false;
    if (setting->name == "enable") {
      if (!ReadFlag(*setting, &on, error)) return false;
      if (apply && !on) s.rendering = false;
      if (apply && on && s.frame)
        StartRenderLocked(s, static_cast<ktsim_pixel_format>(s.frame->format), s.frame->width,
                          s.frame->height);
    } else if (setting->name == "render") {
      const Node& render = *setting;
      const Node* enable = render.Child("enable");
      if (enable == nullptr) return Fail(error, "Missing <enable> in <render>");
      if (!ReadFlag(*enable, &on, error)) return false;
      if (!on) {
        if (apply) s.rendering = false;
        continue;
      }
      const std::string* colorspace = TextOf(render, "colorspace");
      ktsim_pixel_format format = KTSIM_RGB888;
      if (colorspace != nullptr && !FormatOf(*colorspace, &format)) {
        return Fail(error, "Unsupported colorspace '" + *colorspace + "'");
      }
      long width = 0, height = 0;
      if (const Node* window = render.Child("window")) {
        const std::string* w = TextOf(*window, "width");
        const std::string* h = TextOf(*window, "height");
        if ((w && !ReadInt(*w, 0, kMaxFrameWidth, &width)) ||
            (h && !ReadInt(*h, 0, kMaxFrameHeight, &height))) {
          return Fail(error, "Invalid render window size");
        }
      }
      if (apply) {
        StartRenderLocked(s, format, width > 0 ? static_cast<int>(width) : s.width,
                          height > 0 ? static_cast<int>(height) : s.height);
      }
    } else {
      return Fail(error, "Unsupported element <" + setting->name + "> in video stream");
    }
  }
  return true;
}

void Meeting::StartRenderLocked(Stream& s, ktsim_pixel_format format, int width, int height) {
  width = std::clamp(width, 1, kMaxFrameWidth);
  height = std::clamp(height, 1, kMaxFrameHeight);
  if (s.frame && !frames::Fits(s.frame, width, height)) {
    frames::Release(s.frame);
    s.frame = nullptr;
  }
  if (s.frame == nullptr) s.frame = frames::Acquire(width, height);
  frames::Prepare(s.frame, format, width, height, s.id);
  s.rendering = true;
  s.render_start = Clock::now();
  s.last_index = -1;
  Send(KTSIM_VIDEO, ktengine::BufferReadyEvent(s.id, s.frame));
}

// ---- State documents -------------------------------------------------------------------------

std::string Meeting::State(ktsim_engine engine) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::string doc;
  if (engine == KTSIM_AUDIO) {
    auto list = [&](const char* name, const std::vector<AudioDevice>& devices) {
      doc += std::string("<") + name + ">";
      for (const AudioDevice& d : devices) {
        auto v = volumes_.find(d.id);
        doc += "<device id=\"" + Escape(d.id) + "\">" + Tag("name", d.name) +
               Tag("preferred", d.preferred ? "true" : "false") +
               Tag("enabled", d.enabled ? "true" : "false");
        if (v != volumes_.end()) doc += Tag("volume", v->second);
        doc += "</device>";
      }
      doc += std::string("</") + name + ">";
    };
    doc = "<audio>";
    list("inputs", inputs_);
    list("outputs", outputs_);
    doc += "</audio>";
    return doc;
  }
  doc = "<video><inputs>";
  for (const VideoDevice& d : cameras_) {
    doc += "<device id=\"" + Escape(d.id) + "\">" + Tag("name", d.name);
    if (d.screen) doc += Tag("screen", "true");
    doc += Tag("enabled", d.stream_id.empty() ? "false" : "true") + "<codecs>";
    for (const std::string& codec : d.codecs) doc += "<codec name=\"" + Escape(codec) + "\"/>";
    doc += "</codecs></device>";
  }
  doc += "</inputs></video>";
  return doc;
}

}  // namespace ktsim
