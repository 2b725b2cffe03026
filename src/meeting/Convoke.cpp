#include "meeting/Convoke.h"

#include <cstdint>
#include <cstdio>
#include <utility>

#include "kt/Utility.h"
#include "kt/xml.h"
#include "meeting/AudioEvents.h"
#include "meeting/EngineApi.h"
#include "meeting/Logging.h"
#include "meeting/VideoEvents.h"

namespace Telmora {

namespace {

// The outcome of the calling thread's latest validated command.
thread_local std::string tLastError;

// Size of the buffer handed to the engines' GetLastError.
constexpr int kEngineErrorBufferSize = 1024;

// The engines' server URL: "rtsp://" + server + kMediaPortAndPath + path number + "/" + meeting.
const char kMediaPortAndPath[] = ":46000/kt.sdp/";
const char kAudioPathNumber[] = "4";
const char kVideoPathNumber[] = "6";

// What both Connect calls pass after the URL besides the participant's own texts. Their meaning is
// the engines' own; the session passes them verbatim.
const char kConnectMode[] = "auto";
const char kConnectUnused[] = "";
const char kConnectCipher[] = "AES256";
constexpr int kConnectFlag1 = 0;
constexpr int kConnectFlag2 = 1;
constexpr int kConnectFlag3 = 0;

// Keys of this length or more belong to registered users; shorter ones join as guests.
constexpr std::size_t kRegisteredKeyLength = 45;
const char kGuestUuidPrefix[] = "guest-1@1-";

std::string mediaUrl(const std::string& server, const char* pathNumber,
                     const std::string& meetingId) {
  return "rtsp://" + server + kMediaPortAndPath + pathNumber + "/" + meetingId;
}

// A parsed engine state document; empty when the engine has none.
class StateDocument {
 public:
  explicit StateDocument(const char* text) {
    if (text != nullptr) kt::ParseXMLBuffer(text, std::char_traits<char>::length(text), root_);
  }
  kt::XMLElement& root() { return root_; }

 private:
  kt::XMLElement root_;
};

// Calls use(id, device) for every "device" child of list that has an "id" attribute, in order.
template <class Use>
void forEachDevice(kt::XMLElement* list, Use use) {
  std::vector<kt::XMLElement*> elements;
  list->FindElements("device", elements);
  for (kt::XMLElement* device : elements) {
    const kt::XMLAttribute* id = device->FindAttributeByName("id");
    if (id != nullptr) use(id->value, device);
  }
}

// True when element has a child named name whose text is "true".
bool flagSet(kt::XMLElement* element, const char* name) {
  kt::XMLElement* flag = element->FindElementByName(name);
  return flag != nullptr && flag->value == "true";
}

// The "inputs" element of the video state (inside "video"), or null after logging the member's
// message for what is missing.
kt::XMLElement* videoInputs(StateDocument& state, const char* member) {
  kt::XMLElement* video = state.root().FindElementByName("video");
  if (video == nullptr) {
    logLine(std::string("Convoke: ") + member + ": Can't find video element in XML");
    return nullptr;
  }
  kt::XMLElement* inputs = video->FindElementByName("inputs");
  if (inputs == nullptr) {
    logLine(std::string("Convoke: ") + member + ": Can't find inputs element in XML");
  }
  return inputs;
}

// The audio device lists share one walk: audio / <listName> / device, id, preferred.
void listAudioDevices(const char* member, const char* listName, std::vector<std::string>& devices,
                      std::string& preferred) {
  StateDocument state(AudioGetState());
  const std::string prefix = std::string("Convoke: ") + member + ": ";
  kt::XMLElement* audio = state.root().FindElementByName("audio");
  if (audio == nullptr) {
    logLine(prefix + "cannot find audio element");
    return;
  }
  kt::XMLElement* list = audio->FindElementByName(listName);
  if (list == nullptr) {
    logLine(prefix + "cannot find " + listName + " element");
    return;
  }
  forEachDevice(list, [&](const std::string& id, kt::XMLElement* device) {
    if (flagSet(device, "preferred")) preferred = id;
    devices.push_back(id);
  });
}

}  // namespace

Convoke* Convoke::sharedInstance() {
  // Created once, never destroyed: engine and timer threads may still use it while the process
  // exits.
  static Convoke* const instance = new Convoke();
  return instance;
}

Convoke::Convoke() {
  AudioSetCallback(audioCallback);
  VideoSetCallback(videoCallback);
}

void Convoke::setDelegate(MeetingDelegate* newDelegate) { delegate.store(newDelegate); }

std::string Convoke::getLastError() const { return tLastError; }

std::string Convoke::getDisplayName() const {
  std::lock_guard<std::mutex> lock(stateMutex_);
  return displayName_;
}

void Convoke::setLastError(const std::string& text) { tLastError = text; }

// ---- session ---------------------------------------------------------------------------------

void Convoke::joinMeeting(const std::string& server, const std::string& meetingId,
                          const std::string& meetingKey, const std::string& participantUuid,
                          const std::string& name, std::function<void(bool)> completion) {
  if (server.empty() || meetingId.empty() || meetingKey.empty() || name.empty()) {
    logLine("Convoke: Invalid parameters sent to joinMeeting ");
    completion(false);
    return;
  }
  logLine("Convoke:    joinMeeting: " + meetingId + " on " + server + " as " + name);
  {
    std::lock_guard<std::mutex> lock(stateMutex_);
    displayName_ = name;
  }
  const std::string audioUrl = mediaUrl(server, kAudioPathNumber, meetingId);
  logLine("Convoke: Connecting to " + audioUrl);

  std::string uuid = participantUuid;
  if (uuid.empty()) {
    uuid = meetingKey.size() >= kRegisteredKeyLength ? kt::GenerateUUID()
                                                     : kGuestUuidPrefix + kt::GenerateUUID();
  }

  // A failed audio connection does not stop the join: only the video engine's answer counts.
  AudioConnect(audioUrl.c_str(), kConnectMode, kConnectUnused, name.c_str(), uuid.c_str(),
               meetingKey.c_str(), kConnectCipher, kConnectFlag1, kConnectFlag2, kConnectFlag3);
  const std::string videoUrl = mediaUrl(server, kVideoPathNumber, meetingId);
  logLine("Convoke: videoConnect: " + videoUrl);
  const bool connected =
      VideoConnect(videoUrl.c_str(), kConnectMode, kConnectUnused, name.c_str(), uuid.c_str(),
                   meetingKey.c_str(), kConnectCipher, kConnectFlag1, kConnectFlag2, kConnectFlag3);
  if (connected) {
    const Participant local(uuid, name, true);
    // An entry already filed under the UUID (a second join) is kept; the host still hears of the
    // new local participant.
    participants.update([&](Registry::Editor& registry) { registry.insert(uuid, local); });
    MeetingDelegate* d = delegate.load();
    if (d != nullptr) d->participantAdded(local);
  }
  completion(connected);
}

void Convoke::exitMeeting() {
  AudioDisconnect(0);
  VideoDisconnect(0);
  VideoEvents::sharedInstance()->stopTasks();
  {
    std::lock_guard<std::mutex> lock(stateMutex_);
    displayName_.clear();
  }
  participants.clear();
}

// ---- command plumbing ------------------------------------------------------------------------

void Convoke::readEngineError(int (*engineGetLastError)(char*, int)) {
  char buffer[kEngineErrorBufferSize] = {0};
  if (engineGetLastError(buffer, kEngineErrorBufferSize) != 0) {
    buffer[kEngineErrorBufferSize - 1] = '\0';
    setLastError(buffer);
  } else {
    setLastError("Unknown error");
  }
}

bool Convoke::refuse(const char* message) {
  setLastError(message);
  return false;
}

bool Convoke::send(Engine engine, const char* logPrefix, const std::string& document) {
  logLine(logPrefix + document);
  const bool audio = engine == Engine::audio;
  if (audio ? AudioSetRoot(document.c_str()) : VideoSetRoot(document.c_str())) return true;
  readEngineError(audio ? AudioGetLastError : VideoGetLastError);
  return false;
}

// Every command has one shape: the first failed check (refusal, null when all passed) becomes the
// last error and nothing is sent; otherwise "Success" is recorded (before sending, or only once the
// engine accepted), build() makes the document, which is logged after logPrefix and sent, and an
// engine refusal leaves the engine's own text. build() runs only for a valid command and may do
// the command's preparations.
template <class Build>
bool Convoke::command(Engine engine, const char* logPrefix, const char* refusal, Build build,
                      SuccessAt successAt) {
  if (refusal != nullptr) return refuse(refusal);
  if (successAt == SuccessAt::beforeSending) setLastError("Success");
  if (!send(engine, logPrefix, build())) return false;
  if (successAt == SuccessAt::onAcceptance) setLastError("Success");
  return true;
}

// ---- audio commands --------------------------------------------------------------------------

namespace {

const char kTonesCommand[] =
    "<audio><tones enabled=\"true\"/><conditions enabled=\"false\"/><aec "
    "enabled=\"true\"/></audio>";

// A device comes on at this volume (the speaker at Convoke::kStartingPlaybackVolume) with this
// profile.
constexpr unsigned kStartingMicrophoneVolume = 100;
const char kDeviceProfile[] = "opus-16k-mono";

// Device volumes are percentages; stream volumes are passed through unchecked.
constexpr unsigned char kMaxDeviceVolume = 100;

const char* const kInvalidDeviceName = "Invalid device name";

std::string deviceCommand(const char* direction, const std::string& deviceId,
                          const std::string& content) {
  return std::string("<audio><") + direction + "><device guid=\"\" id=\"" + deviceId + "\">" +
         content + "</device></" + direction + "></audio>";
}

std::string enableDeviceCommand(const char* direction, const std::string& deviceId,
                                unsigned volume) {
  return deviceCommand(direction, deviceId,
                       "<enable>true</enable><volume>" + std::to_string(volume) +
                           "</volume><profile>" + kDeviceProfile + "</profile>");
}

std::string deviceVolumeCommand(const char* direction, const std::string& deviceId,
                                unsigned char volume) {
  return std::string("<audio><") + direction + "><device id=\"" + deviceId + "\"><volume>" +
         std::to_string(volume) + "</volume></device></" + direction + "></audio>";
}

// The device is checked before the volume.
const char* deviceVolumeRefusal(const std::string& deviceId, unsigned char volume) {
  if (deviceId.empty()) return "Invalid device";
  if (volume > kMaxDeviceVolume) return "Invalid volume value";
  return nullptr;
}

}  // namespace

bool Convoke::enableAudioInput(const std::string& deviceId) {
  if (!command(Engine::audio,
               "Convoke: enableAudioInput: ", deviceId.empty() ? kInvalidDeviceName : nullptr,
               [&] { return enableDeviceCommand("input", deviceId, kStartingMicrophoneVolume); })) {
    return false;
  }
  AudioSetRoot(kTonesCommand);
  return true;
}

bool Convoke::disableAudioInput(const std::string& deviceId) {
  if (!command(Engine::audio,
               "Convoke: disableAudioInput: ", deviceId.empty() ? kInvalidDeviceName : nullptr,
               [&] { return deviceCommand("input", deviceId, "<enable>false</enable>"); })) {
    return false;
  }
  AudioSetRoot(kTonesCommand);
  return true;
}

bool Convoke::enableAudioOutput(const std::string& deviceId) {
  return command(Engine::audio,
                 "Convoke: enableAudioOutput: ", deviceId.empty() ? kInvalidDeviceName : nullptr,
                 [&] { return enableDeviceCommand("output", deviceId, kStartingPlaybackVolume); });
}

bool Convoke::disableAudioOutput(const std::string& deviceId) {
  return command(Engine::audio,
                 "Convoke: disableAudioOutput: ", deviceId.empty() ? kInvalidDeviceName : nullptr,
                 [&] { return deviceCommand("output", deviceId, "<enable>false</enable>"); });
}

bool Convoke::setAudioStreamVolume(const std::string& streamId, unsigned char volume) {
  return command(Engine::audio, "Convoke: setAudioStreamVolume: ",
                 streamId.empty() ? "Invalid stream ID" : nullptr, [&] {
                   return "<audio><streams><stream id=\"" + streamId + "\"><volume>" +
                          std::to_string(volume) + "</volume></stream></streams></audio>";
                 });
}

bool Convoke::setAudioInputVolume(const std::string& deviceId, unsigned char volume) {
  return command(Engine::audio,
                 "Convoke: setAudioInputVolume: ", deviceVolumeRefusal(deviceId, volume), [&] {
                   std::string document = deviceVolumeCommand("input", deviceId, volume);
                   // The input volume is also echoed to standard output.
                   std::printf("setAudioInputVolume: %s\n", document.c_str());
                   return document;
                 });
}

bool Convoke::setAudioOutputVolume(const std::string& deviceId, unsigned char volume) {
  return command(Engine::audio,
                 "Convoke: setAudioOutputVolume: ", deviceVolumeRefusal(deviceId, volume),
                 [&] { return deviceVolumeCommand("output", deviceId, volume); });
}

// Sounds go to the engine's own entry points, not through a command document.
bool Convoke::playSound(const char* data, unsigned long size) {
  logLine("Convoke: playSound: sound with data pointer: " +
          std::to_string(reinterpret_cast<uintptr_t>(data)) + ", size: " + std::to_string(size));
  if (data == nullptr) return false;
  return AudioPlaySound(data, size, "");
}

bool Convoke::stopSound(const char* data) {
  logLine("Convoke: stopSound: sound with data pointer: " +
          std::to_string(reinterpret_cast<uintptr_t>(data)));
  if (data == nullptr) return false;
  return AudioStopSound(data);
}

// ---- video commands --------------------------------------------------------------------------

namespace {

const char* const kInvalidCameraMode = "Invalid camera mode";
const char* const kInvalidUrl = "Invalid URL";
// The colour space of enableVideoStream(streamId).
const char kDefaultColorspace[] = "RGB888";

}  // namespace

bool Convoke::enableVideoCapture(const std::string& deviceId, const std::string& mode) {
  const char* refusal = deviceId.empty() ? "Invalid camera device"
                        : mode.empty()   ? kInvalidCameraMode
                                         : nullptr;
  return command(Engine::video, "Convoke: enableVideoCapture: ", refusal, [&] {
    return "<video><devices><device id=\"" + deviceId + "\"><enable>true</enable><site>" +
           getDisplayName() + "</site><name>" + deviceId + "</name><profile>" + mode +
           "</profile></device></devices></video>";
  });
}

bool Convoke::disableVideoCapture(const std::string& deviceId) {
  return command(Engine::video, "Convoke: disableVideoCapture: ",
                 deviceId.empty() ? "Invalid camera device" : nullptr, [&] {
                   return "<video><devices><device id=\"" + deviceId +
                          "\"><enable>false</enable></device></devices></video>";
                 });
}

bool Convoke::enableNetworkVideo(const std::string& url, const std::string& profile,
                                 const std::string& name) {
  const char* refusal = url.empty() ? kInvalidUrl : profile.empty() ? kInvalidCameraMode : nullptr;
  return command(Engine::video, "Convoke: enableNetworkVideo: ", refusal, [&] {
    return "<video><local_url><name>" + name + "</name><url>" + url +
           "</url><command>playback_start</command><profile>" + profile +
           "</profile></local_url></video>";
  });
}

bool Convoke::disableNetworkVideo(const std::string& url) {
  return command(Engine::video,
                 "Convoke: disableNetworkVideo: ", url.empty() ? kInvalidUrl : nullptr, [&] {
                   return "<video><local_url><url>" + url +
                          "</url><command>playback_stop</command></local_url></video>";
                 });
}

bool Convoke::enableVideoStream(const std::string& streamId) {
  return enableVideoStream(streamId, kDefaultColorspace);
}

bool Convoke::enableVideoStream(const std::string& streamId, const std::string& colorspace) {
  // The previous poller of the stream stops before anything else, even when the command is refused.
  VideoEvents::sharedInstance()->stopTaskForStreamId(streamId);
  VideoInfo info;
  const bool known = findVideoInfo(streamId, info);
  return command(
      Engine::video,
      "Convoke: enableVideoStr: ", known ? nullptr : "Can't find VideoInfo for streamId",
      [&] {
        return "<video><streams><stream id=\"" + streamId + "\"><render><colorspace>" + colorspace +
               "</colorspace><shmid>0</shmid><local>false</local><enable>true</"
               "enable><window><x>0</x><y>0</y><width>" +
               std::to_string(static_cast<uint32_t>(info.width)) + "</width><height>" +
               std::to_string(static_cast<uint32_t>(info.height)) +
               "</height></window></render></stream></streams></video>";
      },
      SuccessAt::onAcceptance);
}

bool Convoke::disableVideoStream(const std::string& streamId) {
  const bool sent = command(Engine::video, "Convoke: disableVideoStream: ",
                            streamId.empty() ? "Invalid streamId" : nullptr, [&] {
                              // No frame of the stream reaches the host once the command is made.
                              VideoEvents::sharedInstance()->stopTaskForStreamId(streamId);
                              return "<video><streams><stream id=\"" + streamId +
                                     "\"><enable>false</enable></stream></streams></video>";
                            });
  if (!sent) return false;
  // A local stream that is no longer rendered is no longer active; remote records stay as they are.
  participants.update([&](Registry::Editor& registry) {
    const std::string* key = registry.firstKeyByVideoStreamId(streamId);
    if (key == nullptr) return;
    const std::string owner = *key;
    registry.modifyVideoInfo(owner, streamId, [](VideoInfo& info) {
      if (info.local) info.active = false;
    });
  });
  return true;
}

void Convoke::pauseVideoFrameProcessing(const std::string& streamId) {
  VideoEvents::sharedInstance()->pauseTask(streamId);
}

void Convoke::resumeVideoFrameProcessing(const std::string& streamId) {
  VideoEvents::sharedInstance()->resumeTask(streamId);
}

void Convoke::setDeviceOrientation(int orientation) { VideoSetDeviceOrientation(orientation); }

// ---- device and capability lists -------------------------------------------------------------

void Convoke::getVideoDevices(std::vector<std::string>& devices,
                              std::vector<std::string>& screens) {
  StateDocument state(VideoGetState());
  kt::XMLElement* inputs = videoInputs(state, "getVideoDevices");
  if (inputs == nullptr) return;
  forEachDevice(inputs, [&](const std::string& id, kt::XMLElement* device) {
    (flagSet(device, "screen") ? screens : devices).push_back(id);
  });
}

void Convoke::getAudioInputDevices(std::vector<std::string>& devices, std::string& preferred) {
  listAudioDevices("getAudioInputDevices", "inputs", devices, preferred);
}

void Convoke::getAudioOutputDevices(std::vector<std::string>& devices, std::string& preferred) {
  listAudioDevices("getAudioOutputDevices", "outputs", devices, preferred);
}

void Convoke::getSupportedVideoSendResolutions(const std::string& deviceId,
                                               std::vector<std::string>& codecs) {
  StateDocument state(VideoGetState());
  kt::XMLElement* inputs = videoInputs(state, "getSupportedVideoSendResolutions");
  if (inputs == nullptr) return;
  kt::XMLElement* device = nullptr;
  forEachDevice(inputs, [&](const std::string& id, kt::XMLElement* candidate) {
    if (device == nullptr && id == deviceId) device = candidate;
  });
  if (device == nullptr) {
    logLine("Convoke: getSupportedVideoSendResolutions:  Could not find device " + deviceId);
    return;
  }
  kt::XMLElement* codecList = device->FindElementByName("codecs");
  if (codecList == nullptr) {
    logLine("Convoke: getSupportedVideoSendResolutions:  could not find codecs element for " +
            deviceId);
    return;
  }
  std::vector<kt::XMLElement*> elements;
  codecList->FindElements("codec", elements);
  for (kt::XMLElement* codec : elements) {
    const kt::XMLAttribute* name = codec->FindAttributeByName("name");
    if (name != nullptr) codecs.push_back(name->value);
  }
}

// ---- tracing ---------------------------------------------------------------------------------

void Convoke::setTraceLevel(int level) {
  AudioSetTraceLevel(level);
  VideoSetTraceLevel(level);
}

void Convoke::audioTraceLevel(int level) { AudioSetTraceLevel(level); }

void Convoke::videoTraceLevel(int level) { VideoSetTraceLevel(level); }

void Convoke::audioTraceOutputHistory(const std::string& text) {
  AudioTraceOutputHistory(text.c_str());
}

void Convoke::videoTraceOutputHistory(const std::string& text) {
  VideoTraceOutputHistory(text.c_str());
}

void Convoke::enableInlineAudioVideoLogging(bool enable) {
  EngineTraceCallback callback = enable ? loggingCallback : nullptr;
  VideoTraceSetMessageCallback(callback);
  AudioTraceSetMessageCallback(callback);
}

// ---- registry lookups ------------------------------------------------------------------------

bool Convoke::findParticipantByUUID(const std::string& uuid, Participant& out) const {
  return participants.findByKey(uuid, out);
}

bool Convoke::findParticipantByVideoStreamId(const std::string& streamId, Participant& out) const {
  return participants.findByVideoStreamId(streamId, out);
}

bool Convoke::findParticipantByAudioStreamId(const std::string& streamId, Participant& out) const {
  return participants.findByAudioStreamId(streamId, out);
}

bool Convoke::findVideoInfo(const std::string& streamId, VideoInfo& out) const {
  return participants.findVideoInfo(streamId, out);
}

void Convoke::getLocalParticipant(Participant& out) const { participants.getLocal(out); }

void Convoke::getParticipantIds(std::vector<std::string>& out) const { participants.keys(out); }

bool Convoke::isScreenShare(const std::string& text) const {
  return text.find("Screen Capture") != std::string::npos ||
         text.find("ffv1 Lossless") != std::string::npos ||
         text.find("VP8 4K (10FPS)") != std::string::npos;
}

}  // namespace Telmora
