// CMeetingDelegate: the MeetingDelegate for C hosts. Each operation reads its slot of the callback
// table cmDelegateMethods and, when a function is stored there, calls it synchronously on the
// calling thread with C arguments (texts as the strings' own buffers, valid only during the call).
//
// Thread safety: the table's entries are atomic, so a host may store callbacks while notifications
// are raised on other threads; a notification uses whatever its slot held when it read it.
#ifndef CONVOKE_CAPI_CMEETINGDELEGATE_H
#define CONVOKE_CAPI_CMEETINGDELEGATE_H

#include <atomic>
#include <string>

#include "capi/DelegateSlots.h"
#include "meeting/MeetingDelegate.h"

// The host's callbacks, index = delegate slot.
extern std::atomic<void*> cmDelegateMethods[Telmora::kDelegateSlotCount];

#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
#if defined(__clang__)
#pragma GCC diagnostic ignored "-Woverloaded-virtual"
#endif
#endif

class CMeetingDelegate : public MeetingDelegate {
 public:
  void participantAdded(const Telmora::Participant& participant) override;
  void participantRemoved(const Telmora::Participant& participant) override;
  void participantAudioAdded(const Telmora::Participant& participant) override;
  void participantAudioUpdated(const Telmora::Participant& participant) override;
  void participantVideoAdded(const Telmora::Participant& participant,
                             std::string streamId) override;
  void participantVideoUpdated(const Telmora::Participant& participant,
                               std::string streamId) override;
  void participantVideoRemoved(const Telmora::Participant& participant,
                               std::string streamId) override;
  void participantVideoRemoteLayoutChanged(const Telmora::Participant& participant,
                                           std::string streamId) override;
  void videoStreamBufferReady(std::string streamId, void* pixelBuffer) override;
  void videoFrameReady(std::string streamId, void* pixelBuffer) override;
  void inputMeterChanged(unsigned char level) override;
  void outputMeterChanged(unsigned char level) override;
  void participantAmplitudeChanged(const Telmora::Participant& participant, unsigned char amplitude,
                                   bool muted) override;
  // Kept on purpose, never called: it takes the text by value, so it does not replace
  // MeetingDelegate::logMessage. Log lines end in the base's empty operation and the table's log
  // slot is never called; that is the bridge's required behaviour, and this signature is what
  // keeps it (an override here would start calling hosts' log callbacks).
  void logMessage(unsigned int level, std::string text);
  void binaryPlaybackEnded(unsigned long long playbackId) override;
  void binaryPlaybackFailed(unsigned long long playbackId) override;
  void audioConditionUpdate(Telmora::AudioCondition& condition) override;
  void videoConditionUpdate(Telmora::VideoCondition& condition) override;
};

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

// The one bridge object; the session's delegate after ConvokeInitialize.
extern CMeetingDelegate gMeetingDelegate;

#endif  // CONVOKE_CAPI_CMEETINGDELEGATE_H
