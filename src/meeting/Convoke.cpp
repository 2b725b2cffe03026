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

std::string attributeValue(const kt::XMLElement* element, const char* name, bool* found) {
  const kt::XMLAttribute* attribute = element->FindAttributeByName(name);
  *found = attribute != nullptr;
  return attribute != nullptr ? attribute->value : std::string();
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
  std::vector<kt::XMLElement*> elements;
  list->FindElements("device", elements);
  for (kt::XMLElement* device : elements) {
    bool hasId = false;
    std::string id = attributeValue(device, "id", &hasId);
    if (!hasId) continue;
    kt::XMLElement* mark = device->FindElementByName("preferred");
    if (mark != nullptr && mark->value == "true") preferred = id;
    devices.push_back(std::move(id));
  }
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
  return displayName;
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
    displayName = name;
  }
  const std::string audioUrl = "rtsp://" + server + ":46000/kt.sdp/4/" + meetingId;
  logLine("Convoke: Connecting to " + audioUrl);

  // Keys of 45 characters or more belong to registered users; shorter ones join as guests.
  std::string uuid = participantUuid;
  if (uuid.empty()) {
    uuid = meetingKey.size() >= 45 ? kt::GenerateUUID() : "guest-1@1-" + kt::GenerateUUID();
  }

  AudioConnect(audioUrl.c_str(), "auto", "", name.c_str(), uuid.c_str(), meetingKey.c_str(),
               "AES256", 0, 1, 0);
  const std::string videoUrl = "rtsp://" + server + ":46000/kt.sdp/6/" + meetingId;
  logLine("Convoke: videoConnect: " + videoUrl);
  const bool connected = VideoConnect(videoUrl.c_str(), "auto", "", name.c_str(), uuid.c_str(),
                                      meetingKey.c_str(), "AES256", 0, 1, 0);
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
    displayName.clear();
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

bool Convoke::acceptDeviceVolume(const std::string& deviceId, unsigned char volume) {
  // The device is checked before the volume; only device volumes are limited to 0-100.
  if (deviceId.empty()) return refuse("Invalid device");
  if (volume > 100) return refuse("Invalid volume value");
  setLastError("Success");
  return true;
}

bool Convoke::sendAudioCommand(const char* prefix, const std::string& command) {
  logLine(prefix + command);
  if (AudioSetRoot(command.c_str())) return true;
  readEngineError(AudioGetLastError);
  return false;
}

bool Convoke::sendVideoCommand(const char* prefix, const std::string& command) {
  logLine(prefix + command);
  if (VideoSetRoot(command.c_str())) return true;
  readEngineError(VideoGetLastError);
  return false;
}

// ---- audio commands --------------------------------------------------------------------------

namespace {

const char kTonesCommand[] =
    "<audio><tones enabled=\"true\"/><conditions enabled=\"false\"/><aec "
    "enabled=\"true\"/></audio>";

std::string deviceCommand(const char* direction, const std::string& deviceId,
                          const std::string& content) {
  return std::string("<audio><") + direction + "><device guid=\"\" id=\"" + deviceId + "\">" +
         content + "</device></" + direction + "></audio>";
}

std::string deviceVolumeCommand(const char* direction, const std::string& deviceId,
                                unsigned char volume) {
  return std::string("<audio><") + direction + "><device id=\"" + deviceId + "\"><volume>" +
         std::to_string(volume) + "</volume></device></" + direction + "></audio>";
}

}  // namespace

bool Convoke::enableAudioInput(const std::string& deviceId) {
  if (deviceId.empty()) return refuse("Invalid device name");
  setLastError("Success");
  const std::string command =
      deviceCommand("input", deviceId,
                    "<enable>true</enable><volume>100</volume><profile>opus-16k-mono</profile>");
  if (!sendAudioCommand("Convoke: enableAudioInput: ", command)) return false;
  AudioSetRoot(kTonesCommand);
  return true;
}

bool Convoke::disableAudioInput(const std::string& deviceId) {
  if (deviceId.empty()) return refuse("Invalid device name");
  setLastError("Success");
  const std::string command = deviceCommand("input", deviceId, "<enable>false</enable>");
  if (!sendAudioCommand("Convoke: disableAudioInput: ", command)) return false;
  AudioSetRoot(kTonesCommand);
  return true;
}

bool Convoke::enableAudioOutput(const std::string& deviceId) {
  if (deviceId.empty()) return refuse("Invalid device name");
  setLastError("Success");
  const std::string command =
      deviceCommand("output", deviceId,
                    "<enable>true</enable><volume>50</volume><profile>opus-16k-mono</profile>");
  return sendAudioCommand("Convoke: enableAudioOutput: ", command);
}

bool Convoke::disableAudioOutput(const std::string& deviceId) {
  if (deviceId.empty()) return refuse("Invalid device name");
  setLastError("Success");
  const std::string command = deviceCommand("output", deviceId, "<enable>false</enable>");
  return sendAudioCommand("Convoke: disableAudioOutput: ", command);
}

bool Convoke::setAudioStreamVolume(const std::string& streamId, unsigned char volume) {
  if (streamId.empty()) return refuse("Invalid stream ID");
  setLastError("Success");
  const std::string command = "<audio><streams><stream id=\"" + streamId + "\"><volume>" +
                              std::to_string(volume) + "</volume></stream></streams></audio>";
  return sendAudioCommand("Convoke: setAudioStreamVolume: ", command);
}

bool Convoke::setAudioInputVolume(const std::string& deviceId, unsigned char volume) {
  if (!acceptDeviceVolume(deviceId, volume)) return false;
  const std::string command = deviceVolumeCommand("input", deviceId, volume);
  std::printf("setAudioInputVolume: %s\n", command.c_str());
  return sendAudioCommand("Convoke: setAudioInputVolume: ", command);
}

bool Convoke::setAudioOutputVolume(const std::string& deviceId, unsigned char volume) {
  if (!acceptDeviceVolume(deviceId, volume)) return false;
  return sendAudioCommand("Convoke: setAudioOutputVolume: ",
                          deviceVolumeCommand("output", deviceId, volume));
}

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

bool Convoke::enableVideoCapture(const std::string& deviceId, const std::string& mode) {
  if (deviceId.empty()) return refuse("Invalid camera device");
  if (mode.empty()) return refuse("Invalid camera mode");
  setLastError("Success");
  const std::string command = "<video><devices><device id=\"" + deviceId +
                              "\"><enable>true</enable><site>" + getDisplayName() +
                              "</site><name>" + deviceId + "</name><profile>" + mode +
                              "</profile></device></devices></video>";
  return sendVideoCommand("Convoke: enableVideoCapture: ", command);
}

bool Convoke::disableVideoCapture(const std::string& deviceId) {
  if (deviceId.empty()) return refuse("Invalid camera device");
  setLastError("Success");
  const std::string command = "<video><devices><device id=\"" + deviceId +
                              "\"><enable>false</enable></device></devices></video>";
  return sendVideoCommand("Convoke: disableVideoCapture: ", command);
}

bool Convoke::enableNetworkVideo(const std::string& url, const std::string& profile,
                                 const std::string& name) {
  if (url.empty()) return refuse("Invalid URL");
  if (profile.empty()) return refuse("Invalid camera mode");
  setLastError("Success");
  const std::string command = "<video><local_url><name>" + name + "</name><url>" + url +
                              "</url><command>playback_start</command><profile>" + profile +
                              "</profile></local_url></video>";
  return sendVideoCommand("Convoke: enableNetworkVideo: ", command);
}

bool Convoke::disableNetworkVideo(const std::string& url) {
  if (url.empty()) return refuse("Invalid URL");
  setLastError("Success");
  const std::string command = "<video><local_url><url>" + url +
                              "</url><command>playback_stop</command></local_url></video>";
  return sendVideoCommand("Convoke: disableNetworkVideo: ", command);
}

bool Convoke::enableVideoStream(const std::string& streamId) {
  return enableVideoStream(streamId, "RGB888");
}

bool Convoke::enableVideoStream(const std::string& streamId, const std::string& colorspace) {
  VideoEvents::sharedInstance()->stopTaskForStreamId(streamId);
  VideoInfo info;
  if (!findVideoInfo(streamId, info)) return refuse("Can't find VideoInfo for streamId");
  const std::string command =
      "<video><streams><stream id=\"" + streamId + "\"><render><colorspace>" + colorspace +
      "</colorspace><shmid>0</shmid><local>false</local><enable>true</enable><window><x>0</x><y>0</"
      "y><width>" +
      std::to_string(static_cast<uint32_t>(info.width)) + "</width><height>" +
      std::to_string(static_cast<uint32_t>(info.height)) +
      "</height></window></render></stream></streams></video>";
  if (!sendVideoCommand("Convoke: enableVideoStr: ", command)) return false;
  setLastError("Success");
  return true;
}

bool Convoke::disableVideoStream(const std::string& streamId) {
  if (streamId.empty()) return refuse("Invalid streamId");
  setLastError("Success");
  VideoEvents::sharedInstance()->stopTaskForStreamId(streamId);
  const std::string command = "<video><streams><stream id=\"" + streamId +
                              "\"><enable>false</enable></stream></streams></video>";
  if (!sendVideoCommand("Convoke: disableVideoStream: ", command)) return false;
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
  std::vector<kt::XMLElement*> elements;
  inputs->FindElements("device", elements);
  for (kt::XMLElement* device : elements) {
    bool hasId = false;
    std::string id = attributeValue(device, "id", &hasId);
    if (!hasId) continue;
    kt::XMLElement* screen = device->FindElementByName("screen");
    if (screen != nullptr && screen->value == "true") {
      screens.push_back(std::move(id));
    } else {
      devices.push_back(std::move(id));
    }
  }
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
  std::vector<kt::XMLElement*> elements;
  inputs->FindElements("device", elements);
  kt::XMLElement* device = nullptr;
  for (kt::XMLElement* candidate : elements) {
    const kt::XMLAttribute* id = candidate->FindAttributeByName("id");
    if (id != nullptr && id->value == deviceId) {
      device = candidate;
      break;
    }
  }
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
  elements.clear();
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
