// The host notification interface. The session reports every change of the meeting through one
// MeetingDelegate; operations are listed in slot order (the C callback table uses the same
// numbers). Operations run synchronously on whatever thread raised the notification (the host's
// thread for the join, engine event threads, video timer threads) and must be safe to call from any
// thread.
#ifndef CONVOKE_MEETING_MEETINGDELEGATE_H
#define CONVOKE_MEETING_MEETINGDELEGATE_H

#include <string>

#include "convoke/export.h"

#include "meeting/Participant.h"

// The class deliberately has no virtual destructor: delegates are never deleted through it.
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
#endif

class CONVOKE_API MeetingDelegate {
 public:
  virtual void participantAdded(const Telmora::Participant& participant) = 0;         // 0
  virtual void participantRemoved(const Telmora::Participant& participant) = 0;       // 1
  virtual void participantAudioAdded(const Telmora::Participant& participant) = 0;    // 2
  virtual void participantAudioUpdated(const Telmora::Participant& participant) = 0;  // 3
  virtual void participantVideoAdded(const Telmora::Participant& participant,
                                     std::string streamId) = 0;  // 4
  virtual void participantVideoUpdated(const Telmora::Participant& participant,
                                       std::string streamId) = 0;  // 5
  virtual void participantVideoRemoved(const Telmora::Participant& participant,
                                       std::string streamId) = 0;  // 6
  virtual void participantVideoRemoteLayoutChanged(const Telmora::Participant& participant,
                                                   std::string streamId) = 0;        // 7
  virtual void videoStreamBufferReady(std::string streamId, void* pixelBuffer) = 0;  // 8
  virtual void videoFrameReady(std::string streamId, void* pixelBuffer) = 0;         // 9
  virtual void inputMeterChanged(unsigned char level) = 0;                           // 10
  virtual void outputMeterChanged(unsigned char level) = 0;                          // 11
  virtual void participantAmplitudeChanged(const Telmora::Participant& participant,
                                           unsigned char amplitude, bool muted) = 0;  // 12
  // Log lines of the library. The base operation does nothing.
  virtual void logMessage(unsigned int level, const std::string& text);       // 13
  virtual void binaryPlaybackEnded(unsigned long long playbackId) = 0;        // 14
  virtual void binaryPlaybackFailed(unsigned long long playbackId) = 0;       // 15
  virtual void audioConditionUpdate(Telmora::AudioCondition& condition) = 0;  // 16
  virtual void videoConditionUpdate(Telmora::VideoCondition& condition) = 0;  // 17
};

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

#endif  // CONVOKE_MEETING_MEETINGDELEGATE_H
