// Who takes part in the scripted meeting: the simulated participants (names, sites, cameras, screen
// shares), their streams' announcements, arrivals and departures. Every function runs with the
// Meeting's mutex held (the *Locked ones) or takes it: on the clock thread (churn), on the
// product's joining thread (the opening cast) and on the control API's callers (arrive, depart).
#include <algorithm>
#include <cmath>

#include "meeting.h"

namespace ktsim {

namespace {

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

}  // namespace

void Meeting::CastLocked() {
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
  if (!options_.screen) return;
  for (Bot* bot : order) {
    if (bot->phone || (order.size() > 1 && bot == order.front())) continue;
    AddScreenShareLocked(*bot);
    break;
  }
}

void Meeting::AddScreenShareLocked(Bot& bot) {
  Stream screen;
  screen.id = NewIdLocked();
  screen.owner = bot.email;
  screen.email = bot.email;
  screen.site = bot.site;
  screen.name = bot.name + " - Screen Capture";
  screen.codec = "VP8 4K (10FPS)";
  screen.layout = 1;
  screen.width = kScreenWidth;
  screen.height = kScreenHeight;
  screen.fps = std::min(10, std::max(1, options_.fps / 3));
  screen.picture = bot.picture;
  screen.picture.kind = Picture::kScreen;
  bot.screen_id = screen.id;
  streams_[screen.id] = screen;
}

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

}  // namespace ktsim
