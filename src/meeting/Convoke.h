// Telmora::Convoke: the one meeting session of the process. It binds the two media engines to the
// event callbacks, joins and leaves a meeting, sends the audio and video commands, lists devices,
// routes tracing, keeps the participant registry and the last-error text of the latest command.
//
// Thread safety: every member may be called from any thread. The host normally drives the session
// from one thread while engine threads and video timer threads deliver events into the registry.
// The last-error text is per thread (each thread reads the outcome of its own latest validated
// command, so the library's own commands on engine threads never overwrite the host's);
// displayName_ is guarded by stateMutex_; the registry has its own lock. No lock of
// ours is held while an engine function or the delegate runs, so a host may call any entry point
// from inside a callback and an engine may call back from inside SetRoot.
#ifndef CONVOKE_MEETING_CONVOKE_H
#define CONVOKE_MEETING_CONVOKE_H

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "meeting/MeetingDelegate.h"
#include "meeting/Participant.h"
#include "meeting/Registry.h"

namespace Telmora {

class Convoke {
 public:
  // The session, created on first use (which binds the engines' event callbacks); never destroyed.
  static Convoke* sharedInstance();

  Convoke(const Convoke&) = delete;
  Convoke& operator=(const Convoke&) = delete;

  // Every announced remote stream and an enabled speaker start at this volume.
  static constexpr unsigned char kStartingPlaybackVolume = 50;

  // Not owned; null until setDelegate. Read by every thread that reports something.
  std::atomic<MeetingDelegate*> delegate{nullptr};
  // The participants of the meeting, keyed by UUID.
  Registry participants;

  // ---- session ----
  void setDelegate(MeetingDelegate* delegate);
  // Connects both engines and, when the video engine accepts, registers the local participant.
  // completion is called exactly once, on the calling thread, before joinMeeting returns; an empty
  // completion makes that call throw std::bad_function_call (after the join has run).
  void joinMeeting(const std::string& server, const std::string& meetingId,
                   const std::string& meetingKey, const std::string& participantUuid,
                   const std::string& displayName, std::function<void(bool)> completion);
  // Disconnects both engines, stops every video timer task and empties the registry.
  void exitMeeting();
  // The outcome text of the calling thread's latest validated command ("" before the first).
  std::string getLastError() const;
  std::string getDisplayName() const;

  // ---- audio commands and sounds (true when the engine accepted) ----
  bool enableAudioInput(const std::string& deviceId);
  bool disableAudioInput(const std::string& deviceId);
  bool enableAudioOutput(const std::string& deviceId);
  bool disableAudioOutput(const std::string& deviceId);
  bool setAudioStreamVolume(const std::string& streamId, unsigned char volume);
  bool setAudioInputVolume(const std::string& deviceId, unsigned char volume);
  bool setAudioOutputVolume(const std::string& deviceId, unsigned char volume);
  // REQUIRES: data stays valid until the engine reports the end of the sound.
  bool playSound(const char* data, unsigned long size);
  bool stopSound(const char* data);

  // ---- video commands ----
  bool enableVideoCapture(const std::string& deviceId, const std::string& mode);
  bool disableVideoCapture(const std::string& deviceId);
  bool enableNetworkVideo(const std::string& url, const std::string& profile,
                          const std::string& name);
  bool disableNetworkVideo(const std::string& url);
  // The colour space "RGB888". Kept for C++ callers: the C API always names one.
  bool enableVideoStream(const std::string& streamId);
  bool enableVideoStream(const std::string& streamId, const std::string& colorspace);
  bool disableVideoStream(const std::string& streamId);
  void pauseVideoFrameProcessing(const std::string& streamId);
  void resumeVideoFrameProcessing(const std::string& streamId);
  void setDeviceOrientation(int orientation);

  // ---- device and capability lists (appended to the outputs) ----
  void getVideoDevices(std::vector<std::string>& devices, std::vector<std::string>& screens);
  void getAudioInputDevices(std::vector<std::string>& devices, std::string& preferred);
  void getAudioOutputDevices(std::vector<std::string>& devices, std::string& preferred);
  void getSupportedVideoSendResolutions(const std::string& deviceId,
                                        std::vector<std::string>& codecs);

  // ---- tracing ----
  void setTraceLevel(int level);
  void audioTraceLevel(int level);
  void videoTraceLevel(int level);
  void audioTraceOutputHistory(const std::string& text);
  void videoTraceOutputHistory(const std::string& text);
  void enableInlineAudioVideoLogging(bool enable);

  // ---- registry lookups: copy into out and return true; out unchanged on a miss ----
  bool findParticipantByUUID(const std::string& uuid, Participant& out) const;
  bool findParticipantByVideoStreamId(const std::string& streamId, Participant& out) const;
  bool findParticipantByAudioStreamId(const std::string& streamId, Participant& out) const;
  bool findVideoInfo(const std::string& streamId, VideoInfo& out) const;
  void getLocalParticipant(Participant& out) const;
  void getParticipantIds(std::vector<std::string>& out) const;
  // True when text names a screen source or a screen codec.
  bool isScreenShare(const std::string& text) const;

 private:
  Convoke();

  enum class Engine { audio, video };
  enum class SuccessAt { beforeSending, onAcceptance };

  void setLastError(const std::string& text);
  // A validation failure: message becomes the last error and the command is not sent.
  bool refuse(const char* message);
  // The one shape of every command document (see Convoke.cpp): validate, record "Success", build,
  // log, send, take the engine's refusal.
  template <class Build>
  bool command(Engine engine, const char* logPrefix, const char* refusal, Build build,
               SuccessAt successAt = SuccessAt::beforeSending);
  // Logs prefix + document, sends it with AudioSetRoot / VideoSetRoot and, when the engine refuses,
  // takes its error text (or "Unknown error") as the last error. Returns the engine's acceptance.
  bool send(Engine engine, const char* logPrefix, const std::string& document);
  void readEngineError(int (*getLastError)(char*, int));

  mutable std::mutex stateMutex_;
  std::string displayName_;  // guarded by stateMutex_
};

}  // namespace Telmora

#endif  // CONVOKE_MEETING_CONVOKE_H
