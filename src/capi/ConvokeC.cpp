// The exported C functions of the library and the buffers behind them: the last-error text, the
// device lists handed to the host, and the buffers of the participant queries.
//
// Thread safety: the last-error text and the query buffers are per thread (errno-style), so a text
// handed to one thread is never overwritten by another thread's call; a thread that calls alone
// sees one buffer per function, exactly as if they were plain globals. The device lists are shared
// by all threads and guarded by one mutex, held while a list is filled and never while an engine or
// the host runs, so that a host may call these functions from any thread, callbacks included.
// Every pointer a function writes through may be NULL; nothing is written there then.

#include "convoke/convoke.h"

#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "capi/CMeetingDelegate.h"
#include "meeting/Convoke.h"
#include "meeting/Logging.h"

using Telmora::Convoke;

namespace {

// Runs body and stops any exception at the C boundary: it is logged and the fallback is returned.
template <class R, class F>
R guarded(const char* function, R fallback, F&& body) noexcept {
  try {
    return body();
  } catch (const std::exception& e) {
    try {
      Telmora::logLine(std::string("Convoke: ") + function + ": " + e.what());
    } catch (...) {
    }
  } catch (...) {
  }
  return fallback;
}

template <class F>
void guardedVoid(const char* function, F&& body) noexcept {
  guarded(function, 0, [&] {
    body();
    return 0;
  });
}

std::string text(const char* s) { return s != nullptr ? std::string(s) : std::string(); }

// ---- last error -------------------------------------------------------------------------------

// The text handed out by the calling thread's latest getLastError.
thread_local std::string gLastError;

// ---- lists ------------------------------------------------------------------------------------

// One library-owned list: a malloc'ed block of `length` malloc'ed strings.
struct StringList {
  char** array = nullptr;
  unsigned short length = 0;
  // True while `array` points at a block that has been released but is still handed out for an
  // empty result; such a block is never released again.
  bool released = false;
};

std::mutex gListsMutex;
StringList gVideoDevices;              // guarded by gListsMutex
StringList gVideoScreens;              // guarded by gListsMutex
StringList gAudioInputDevices;         // guarded by gListsMutex
StringList gAudioOutputDevices;        // guarded by gListsMutex
StringList gSupportedSendResolutions;  // guarded by gListsMutex

void releaseList(StringList& list) {
  if (list.array != nullptr && !list.released) freeStringArray(list.array, list.length);
  list.released = true;
}

// Refills a list from strings. An empty result keeps the previous (released) pointer with a count
// of 0, so hosts must trust the count; the block is not released a second time.
void fillList(StringList& list, const std::vector<std::string>& strings) {
  releaseList(list);
  list.length = static_cast<unsigned short>(strings.size());
  if (list.length == 0) return;
  list.array = static_cast<char**>(std::malloc(sizeof(char*) * list.length));
  for (unsigned short i = 0; i < list.length; ++i) {
    const std::string& s = strings[i];
    list.array[i] = static_cast<char*>(std::malloc(s.size() + 1));
    std::memcpy(list.array[i], s.c_str(), s.size() + 1);
  }
  list.released = false;
}

void deallocateList(StringList& list) {
  releaseList(list);
  list.array = nullptr;
  list.length = 0;
  list.released = false;
}

char* copyForHost(const std::string& s) {
  if (s.empty()) return nullptr;
  char* copy = static_cast<char*>(std::malloc(s.size() + 1));
  std::memcpy(copy, s.c_str(), s.size() + 1);
  return copy;
}

// ---- query buffers ----------------------------------------------------------------------------

// Per thread: the record the calling thread's latest participant, video-info and
// getParticipantVideoInfoAt queries returned texts from.
thread_local Telmora::Participant gParticipant;
thread_local Telmora::VideoInfo gVideoInfo;
thread_local Telmora::Participant gVideoInfoAtParticipant;

// Stores value through out unless out is NULL.
template <class T>
void store(T* out, T value) {
  if (out != nullptr) *out = value;
}

void findStream(bool video, const char* streamId, char* out, unsigned short size) {
  if (size == 0 || out == nullptr) return;
  Telmora::Participant participant;
  Convoke* session = Convoke::sharedInstance();
  const bool found = video ? session->findParticipantByVideoStreamId(text(streamId), participant)
                           : session->findParticipantByAudioStreamId(text(streamId), participant);
  if (found) {
    std::strncpy(out, participant.uuid.c_str(), size);
  } else {
    out[0] = '\0';
  }
}

}  // namespace

// ---- lifecycle ----------------------------------------------------------------------------------

extern "C" void ConvokeInitialize(void) {
  guardedVoid("ConvokeInitialize", [] {
    for (auto& slot : cmDelegateMethods) slot.store(nullptr);
    Convoke::sharedInstance()->setDelegate(&gMeetingDelegate);
  });
}

extern "C" void SetDelegateCallback(unsigned int slot, void* function) {
  if (slot < Telmora::kDelegateSlotCount) cmDelegateMethods[slot].store(function);
}

extern "C" void ConvokeDeallocate(void) {
  std::lock_guard<std::mutex> lock(gListsMutex);
  deallocateList(gVideoDevices);
  deallocateList(gAudioInputDevices);
  deallocateList(gAudioOutputDevices);
  deallocateList(gSupportedSendResolutions);
}

extern "C" void joinMeeting(const char* server, const char* meetingId, const char* meetingKey,
                            const char* participantUuid, const char* displayName,
                            void (*completion)(bool)) {
  guardedVoid("joinMeeting", [&] {
    std::function<void(bool)> done;
    if (completion != nullptr) done = completion;
    Convoke::sharedInstance()->joinMeeting(text(server), text(meetingId), text(meetingKey),
                                           text(participantUuid), text(displayName), done);
  });
}

extern "C" void exitMeeting(void) {
  guardedVoid("exitMeeting", [] { Convoke::sharedInstance()->exitMeeting(); });
}

extern "C" const char* getLastError(void) {
  std::string latest = guarded("getLastError", std::string(),
                               [] { return Convoke::sharedInstance()->getLastError(); });
  gLastError = std::move(latest);
  return gLastError.c_str();
}

// ---- commands -----------------------------------------------------------------------------------

#define CONVOKE_COMMAND(name, call) \
  return guarded(name, 0, [&] { return Convoke::sharedInstance()->call ? 1 : 0; })

extern "C" int enableAudioInput(const char* deviceId) {
  CONVOKE_COMMAND("enableAudioInput", enableAudioInput(text(deviceId)));
}
extern "C" int disableAudioInput(const char* deviceId) {
  CONVOKE_COMMAND("disableAudioInput", disableAudioInput(text(deviceId)));
}
extern "C" int enableAudioOutput(const char* deviceId) {
  CONVOKE_COMMAND("enableAudioOutput", enableAudioOutput(text(deviceId)));
}
extern "C" int disableAudioOutput(const char* deviceId) {
  CONVOKE_COMMAND("disableAudioOutput", disableAudioOutput(text(deviceId)));
}
extern "C" int setAudioStreamVolume(const char* streamId, unsigned char volume) {
  CONVOKE_COMMAND("setAudioStreamVolume", setAudioStreamVolume(text(streamId), volume));
}
extern "C" int setAudioInputVolume(const char* deviceId, unsigned char volume) {
  CONVOKE_COMMAND("setAudioInputVolume", setAudioInputVolume(text(deviceId), volume));
}
extern "C" int setAudioOutputVolume(const char* deviceId, unsigned char volume) {
  CONVOKE_COMMAND("setAudioOutputVolume", setAudioOutputVolume(text(deviceId), volume));
}
extern "C" int playSound(const char* data, unsigned long size) {
  CONVOKE_COMMAND("playSound", playSound(data, size));
}
extern "C" int stopSound(const char* data) { CONVOKE_COMMAND("stopSound", stopSound(data)); }
extern "C" int enableVideoCapture(const char* deviceId, const char* mode) {
  CONVOKE_COMMAND("enableVideoCapture", enableVideoCapture(text(deviceId), text(mode)));
}
extern "C" int diableVideoCapture(const char* deviceId) {
  CONVOKE_COMMAND("disableVideoCapture", disableVideoCapture(text(deviceId)));
}
extern "C" int enableNetworkVideo(const char* url, const char* profile, const char* name) {
  CONVOKE_COMMAND("enableNetworkVideo", enableNetworkVideo(text(url), text(profile), text(name)));
}
extern "C" int disableNetworkVideo(const char* url) {
  CONVOKE_COMMAND("disableNetworkVideo", disableNetworkVideo(text(url)));
}
extern "C" int enableVideoStream(const char* streamId, const char* colorspace) {
  CONVOKE_COMMAND("enableVideoStream", enableVideoStream(text(streamId), text(colorspace)));
}
extern "C" int disableVideoStream(const char* streamId) {
  CONVOKE_COMMAND("disableVideoStream", disableVideoStream(text(streamId)));
}

#undef CONVOKE_COMMAND

extern "C" void pauseVideoFrameProcessing(const char* streamId) {
  guardedVoid("pauseVideoFrameProcessing",
              [&] { Convoke::sharedInstance()->pauseVideoFrameProcessing(text(streamId)); });
}
extern "C" void resumeVideoFrameProcessing(const char* streamId) {
  guardedVoid("resumeVideoFrameProcessing",
              [&] { Convoke::sharedInstance()->resumeVideoFrameProcessing(text(streamId)); });
}
extern "C" void setDeviceOrientation(int orientation) {
  guardedVoid("setDeviceOrientation",
              [&] { Convoke::sharedInstance()->setDeviceOrientation(orientation); });
}

// ---- tracing ------------------------------------------------------------------------------------

extern "C" void setTraceLevel(int level) {
  guardedVoid("setTraceLevel", [&] { Convoke::sharedInstance()->setTraceLevel(level); });
}
extern "C" void audioTraceLevel(int level) {
  guardedVoid("audioTraceLevel", [&] { Convoke::sharedInstance()->audioTraceLevel(level); });
}
extern "C" void videoTraceLevel(int level) {
  guardedVoid("videoTraceLevel", [&] { Convoke::sharedInstance()->videoTraceLevel(level); });
}
extern "C" void audioTraceOutputHistory(const char* history) {
  guardedVoid("audioTraceOutputHistory",
              [&] { Convoke::sharedInstance()->audioTraceOutputHistory(text(history)); });
}
extern "C" void videoTraceOutputHistory(const char* history) {
  guardedVoid("videoTraceOutputHistory",
              [&] { Convoke::sharedInstance()->videoTraceOutputHistory(text(history)); });
}

void enableInlineAudioVideoLogging(bool enable) {
  guardedVoid("enableInlineAudioVideoLogging",
              [&] { Convoke::sharedInstance()->enableInlineAudioVideoLogging(enable); });
}

// ---- lists --------------------------------------------------------------------------------------

void freeStringArray(char** array, unsigned short count) {
  if (array == nullptr) return;
  for (unsigned short i = 0; i < count; ++i) std::free(array[i]);
  std::free(array);
}

extern "C" void getVideoDevices(char*** devices, unsigned short* deviceCount, char*** screens,
                                unsigned short* screenCount) {
  std::vector<std::string> cameras;
  std::vector<std::string> screenList;
  guardedVoid("getVideoDevices",
              [&] { Convoke::sharedInstance()->getVideoDevices(cameras, screenList); });
  std::lock_guard<std::mutex> lock(gListsMutex);
  fillList(gVideoDevices, cameras);
  fillList(gVideoScreens, screenList);
  store(devices, gVideoDevices.array);
  store(deviceCount, gVideoDevices.length);
  store(screens, gVideoScreens.array);
  store(screenCount, gVideoScreens.length);
}

namespace {

// The two audio lists share one shape: the session's list into the host's list, plus the
// preferred device as a fresh copy.
void audioDeviceList(const char* member,
                     void (Convoke::*get)(std::vector<std::string>&, std::string&),
                     StringList& hostList, char*** devices, unsigned short* deviceCount,
                     char** preferred) {
  std::vector<std::string> list;
  std::string chosen;
  guardedVoid(member, [&] { (Convoke::sharedInstance()->*get)(list, chosen); });
  std::lock_guard<std::mutex> lock(gListsMutex);
  fillList(hostList, list);
  store(devices, hostList.array);
  store(deviceCount, hostList.length);
  if (preferred != nullptr) *preferred = copyForHost(chosen);
}

}  // namespace

extern "C" void getAudioInputDevices(char*** devices, unsigned short* deviceCount,
                                     char** preferred) {
  audioDeviceList("getAudioInputDevices", &Convoke::getAudioInputDevices, gAudioInputDevices,
                  devices, deviceCount, preferred);
}

extern "C" void getAudioOutputDevices(char*** devices, unsigned short* deviceCount,
                                      char** preferred) {
  audioDeviceList("getAudioOutputDevices", &Convoke::getAudioOutputDevices, gAudioOutputDevices,
                  devices, deviceCount, preferred);
}

extern "C" void getSupportedVideoSendResolutions(const char* deviceId, char*** codecs,
                                                 unsigned short* codecCount) {
  std::vector<std::string> list;
  guardedVoid("getSupportedVideoSendResolutions", [&] {
    Convoke::sharedInstance()->getSupportedVideoSendResolutions(text(deviceId), list);
  });
  std::lock_guard<std::mutex> lock(gListsMutex);
  fillList(gSupportedSendResolutions, list);
  store(codecs, gSupportedSendResolutions.array);
  store(codecCount, gSupportedSendResolutions.length);
}

// ---- queries ------------------------------------------------------------------------------------

void findParticipantByVideoStreamId(const char* streamId, char* out, unsigned short size) {
  guardedVoid("findParticipantByVideoStreamId", [&] { findStream(true, streamId, out, size); });
}

void findParticipantByAudioStreamId(const char* streamId, char* out, unsigned short size) {
  guardedVoid("findParticipantByAudioStreamId", [&] { findStream(false, streamId, out, size); });
}

extern "C" bool isScreenShare(const char* description) {
  return guarded("isScreenShare", false,
                 [&] { return Convoke::sharedInstance()->isScreenShare(text(description)); });
}

extern "C" void getParticipantString(const char* uuid, int key, const char** out) {
  store<const char*>(out, nullptr);
  guardedVoid("getParticipantString", [&] {
    Telmora::Participant found;
    if (!Convoke::sharedInstance()->findParticipantByUUID(text(uuid), found)) return;
    gParticipant = std::move(found);
    if (key == InfoKeyId) store(out, gParticipant.uuid.c_str());
    if (key == InfoKeySite) store(out, gParticipant.site.c_str());
  });
}

extern "C" bool getParticipantBool(const char* uuid, int key) {
  return guarded("getParticipantBool", false, [&] {
    Telmora::Participant found;
    return Convoke::sharedInstance()->findParticipantByUUID(text(uuid), found) &&
           key == InfoKeyLocal && found.isLocal;
  });
}

extern "C" unsigned int getParticipantVideoInfoCount(const char* uuid) {
  return guarded("getParticipantVideoInfoCount", 0u, [&] {
    Telmora::Participant found;
    if (!Convoke::sharedInstance()->findParticipantByUUID(text(uuid), found)) return 0u;
    return static_cast<unsigned int>(found.videoInfos.size());
  });
}

extern "C" void getParticipantVideoInfoAt(const char* uuid, unsigned int index, const char** out) {
  guardedVoid("getParticipantVideoInfoAt", [&] {
    Telmora::Participant found;
    if (!Convoke::sharedInstance()->findParticipantByUUID(text(uuid), found)) return;
    if (index >= found.videoInfos.size() || out == nullptr) return;
    gVideoInfoAtParticipant = std::move(found);
    auto entry = gVideoInfoAtParticipant.videoInfos.begin();
    std::advance(entry, index);
    *out = entry->first.c_str();
  });
}

extern "C" void getVideoInfoString(const char* streamId, int key, const char** out) {
  store<const char*>(out, nullptr);
  guardedVoid("getVideoInfoString", [&] {
    Telmora::VideoInfo found;
    if (!Convoke::sharedInstance()->findVideoInfo(text(streamId), found)) return;
    gVideoInfo = std::move(found);
    switch (key) {
      case InfoKeyId:
        store(out, gVideoInfo.streamId.c_str());
        break;
      case InfoKeySite:
        store(out, gVideoInfo.site.c_str());
        break;
      case InfoKeyName:
        store(out, gVideoInfo.name.c_str());
        break;
      case InfoKeyCodecName:
        store(out, gVideoInfo.codecName.c_str());
        break;
      default:
        break;
    }
  });
}

extern "C" bool getVideoInfoBool(const char* streamId, int key) {
  return guarded("getVideoInfoBool", false, [&] {
    Telmora::VideoInfo found;
    if (!Convoke::sharedInstance()->findVideoInfo(text(streamId), found)) return false;
    if (key == InfoKeyLocal) return found.local;
    if (key == InfoKeyActive) return found.active;
    return false;
  });
}

extern "C" int getVideoInfoInt(const char* streamId, int key) {
  return guarded("getVideoInfoInt", 0, [&] {
    Telmora::VideoInfo found;
    if (!Convoke::sharedInstance()->findVideoInfo(text(streamId), found)) return 0;
    if (key == InfoKeyLayout) return static_cast<int>(found.layout);
    if (key == InfoKeyWidth) return static_cast<int>(found.width);
    if (key == InfoKeyHeight) return static_cast<int>(found.height);
    return 0;
  });
}

namespace {

void audioInfoText(const char* uuid, const char** out, bool streamId) {
  store<const char*>(out, nullptr);
  Telmora::Participant found;
  if (!Convoke::sharedInstance()->findParticipantByUUID(text(uuid), found)) return;
  gParticipant = std::move(found);
  const std::string& value =
      streamId ? gParticipant.audioInfo.streamId : gParticipant.audioInfo.site;
  if (!value.empty()) store(out, value.c_str());
}

}  // namespace

extern "C" void getParticipantAudioInfoStreamId(const char* uuid, const char** out) {
  guardedVoid("getParticipantAudioInfoStreamId", [&] { audioInfoText(uuid, out, true); });
}

extern "C" void getParticipantAudioInfoSite(const char* uuid, const char** out) {
  guardedVoid("getParticipantAudioInfoSite", [&] { audioInfoText(uuid, out, false); });
}
