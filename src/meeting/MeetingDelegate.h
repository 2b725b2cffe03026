// The host notification interface. The session reports every change of the meeting through one
// MeetingDelegate; operations are declared in slot order (capi/DelegateSlots.h, the order of
// the C callback table). Operations run synchronously on whatever thread raised the notification
// (the host's thread for the join, engine event threads, video timer threads) and must be safe to
// call from any thread.
//
// Internal to the library, like CMeetingDelegate: hosts receive notifications through the C
// callback table, and neither class is exported. A C++ implementation outside the library could
// not be installed anyway (the session that holds the delegate is not exported).
#ifndef CONVOKE_MEETING_MEETINGDELEGATE_H
#define CONVOKE_MEETING_MEETINGDELEGATE_H

#include <string>

#include "meeting/Participant.h"

// The class deliberately has no virtual destructor: delegates are never deleted through it.
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
#endif

class MeetingDelegate {
 public:
  virtual void participantAdded(const Telmora::Participant& participant) = 0;
  virtual void participantRemoved(const Telmora::Participant& participant) = 0;
  virtual void participantAudioAdded(const Telmora::Participant& participant) = 0;
  virtual void participantAudioUpdated(const Telmora::Participant& participant) = 0;
  virtual void participantVideoAdded(const Telmora::Participant& participant,
                                     std::string streamId) = 0;
  virtual void participantVideoUpdated(const Telmora::Participant& participant,
                                       std::string streamId) = 0;
  virtual void participantVideoRemoved(const Telmora::Participant& participant,
                                       std::string streamId) = 0;
  virtual void participantVideoRemoteLayoutChanged(const Telmora::Participant& participant,
                                                   std::string streamId) = 0;
  virtual void videoStreamBufferReady(std::string streamId, void* pixelBuffer) = 0;
  virtual void videoFrameReady(std::string streamId, void* pixelBuffer) = 0;
  virtual void inputMeterChanged(unsigned char level) = 0;
  virtual void outputMeterChanged(unsigned char level) = 0;
  virtual void participantAmplitudeChanged(const Telmora::Participant& participant,
                                           unsigned char amplitude, bool muted) = 0;
  // Log lines of the library. The base operation does nothing (MeetingDelegate.cpp).
  virtual void logMessage(unsigned int level, const std::string& text);
  virtual void binaryPlaybackEnded(unsigned long long playbackId) = 0;
  virtual void binaryPlaybackFailed(unsigned long long playbackId) = 0;
  virtual void audioConditionUpdate(Telmora::AudioCondition& condition) = 0;
  virtual void videoConditionUpdate(Telmora::VideoCondition& condition) = 0;
};

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

#endif  // CONVOKE_MEETING_MEETINGDELEGATE_H
