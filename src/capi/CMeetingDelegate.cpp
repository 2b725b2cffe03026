#include "capi/CMeetingDelegate.h"

#include <type_traits>

#include "convoke/convoke.h"

std::atomic<void*> cmDelegateMethods[Telmora::kDelegateSlotCount] = {};
CMeetingDelegate gMeetingDelegate;

namespace {

// The slot list and the public enum agree in order and size, and each slot names an operation.
enum SlotOrder : unsigned int {
#define CONVOKE_SLOT_ORDER(Slot, operation) kOrder##Slot,
  CONVOKE_DELEGATE_SLOTS(CONVOKE_SLOT_ORDER)
#undef CONVOKE_SLOT_ORDER
};
#define CONVOKE_SLOT_CHECK(Slot, operation)                                                    \
  static_assert(kOrder##Slot == static_cast<unsigned int>(DelegateCallbackSlot##Slot),         \
                #Slot " is out of order");                                                     \
  static_assert(std::is_member_function_pointer<decltype(&MeetingDelegate::operation)>::value, \
                #operation " is not a MeetingDelegate operation");
CONVOKE_DELEGATE_SLOTS(CONVOKE_SLOT_CHECK)
#undef CONVOKE_SLOT_CHECK
static_assert(Telmora::kDelegateSlotCount == DelegateCallbackSlotCount,
              "the slot list and DelegateCallbackSlot differ in size");

using Slot = DelegateCallbackSlot;
// Slot 13 has no C type in convoke.h: it is never called.
using LogFn = void (*)(unsigned int, std::string);

template <class Fn>
Fn slot(Slot index) {
  return reinterpret_cast<Fn>(cmDelegateMethods[index].load(std::memory_order_acquire));
}

void callParticipant(Slot index, const Telmora::Participant& participant) {
  if (ConvokeParticipantCallback fn = slot<ConvokeParticipantCallback>(index))
    fn(participant.uuid.c_str());
}

void callParticipantStream(Slot index, const Telmora::Participant& participant,
                           const std::string& streamId) {
  if (ConvokeParticipantStreamCallback fn = slot<ConvokeParticipantStreamCallback>(index)) {
    fn(participant.uuid.c_str(), streamId.c_str());
  }
}

}  // namespace

void CMeetingDelegate::participantAdded(const Telmora::Participant& p) {
  callParticipant(DelegateCallbackSlotParticipantAdded, p);
}

void CMeetingDelegate::participantRemoved(const Telmora::Participant& p) {
  callParticipant(DelegateCallbackSlotParticipantRemoved, p);
}

void CMeetingDelegate::participantAudioAdded(const Telmora::Participant& p) {
  callParticipant(DelegateCallbackSlotParticipantAudioAdded, p);
}

void CMeetingDelegate::participantAudioUpdated(const Telmora::Participant& p) {
  callParticipant(DelegateCallbackSlotParticipantAudioUpdated, p);
}

void CMeetingDelegate::participantVideoAdded(const Telmora::Participant& p, std::string streamId) {
  callParticipantStream(DelegateCallbackSlotParticipantVideoAdded, p, streamId);
}

void CMeetingDelegate::participantVideoUpdated(const Telmora::Participant& p,
                                               std::string streamId) {
  callParticipantStream(DelegateCallbackSlotParticipantVideoUpdated, p, streamId);
}

void CMeetingDelegate::participantVideoRemoved(const Telmora::Participant& p,
                                               std::string streamId) {
  callParticipantStream(DelegateCallbackSlotParticipantVideoRemoved, p, streamId);
}

void CMeetingDelegate::participantVideoRemoteLayoutChanged(const Telmora::Participant& p,
                                                           std::string streamId) {
  callParticipantStream(DelegateCallbackSlotParticipantVideoRemoteLayoutChanged, p, streamId);
}

void CMeetingDelegate::videoStreamBufferReady(std::string streamId, void* pixelBuffer) {
  if (ConvokeVideoBufferCallback fn =
          slot<ConvokeVideoBufferCallback>(DelegateCallbackSlotVideoStreamBufferReady))
    fn(streamId.c_str(), pixelBuffer);
}

void CMeetingDelegate::videoFrameReady(std::string streamId, void* pixelBuffer) {
  if (ConvokeVideoBufferCallback fn =
          slot<ConvokeVideoBufferCallback>(DelegateCallbackSlotVideoFrameReady))
    fn(streamId.c_str(), pixelBuffer);
}

void CMeetingDelegate::inputMeterChanged(unsigned char level) {
  if (ConvokeMeterCallback fn = slot<ConvokeMeterCallback>(DelegateCallbackSlotInputMeterChanged))
    fn(level);
}

void CMeetingDelegate::outputMeterChanged(unsigned char level) {
  if (ConvokeMeterCallback fn = slot<ConvokeMeterCallback>(DelegateCallbackSlotOutputMeterChanged))
    fn(level);
}

void CMeetingDelegate::participantAmplitudeChanged(const Telmora::Participant& p,
                                                   unsigned char amplitude, bool muted) {
  if (ConvokeAmplitudeCallback fn =
          slot<ConvokeAmplitudeCallback>(DelegateCallbackSlotParticipantAmplitudeChanged)) {
    fn(p.uuid.c_str(), amplitude, muted);
  }
}

void CMeetingDelegate::logMessage(unsigned int level, std::string text) {
  if (LogFn fn = slot<LogFn>(DelegateCallbackSlotLogMessage)) fn(level, std::move(text));
}

void CMeetingDelegate::binaryPlaybackEnded(unsigned long long playbackId) {
  if (ConvokePlaybackCallback fn =
          slot<ConvokePlaybackCallback>(DelegateCallbackSlotBinaryPlaybackEnded))
    fn(playbackId);
}

void CMeetingDelegate::binaryPlaybackFailed(unsigned long long playbackId) {
  if (ConvokePlaybackCallback fn =
          slot<ConvokePlaybackCallback>(DelegateCallbackSlotBinaryPlaybackFailed))
    fn(playbackId);
}

void CMeetingDelegate::audioConditionUpdate(Telmora::AudioCondition& c) {
  if (ConvokeAudioConditionCallback fn =
          slot<ConvokeAudioConditionCallback>(DelegateCallbackSlotAudioConditionUpdate)) {
    fn(c.received, c.sent, c.dataBytesDropped, c.ctrlBytesDropped, c.cpuUsage, c.bars,
       c.upstreamLoss, c.upstreamLatency, c.downstreamLoss, c.downstreamLatency);
  }
}

void CMeetingDelegate::videoConditionUpdate(Telmora::VideoCondition& c) {
  if (ConvokeVideoConditionCallback fn =
          slot<ConvokeVideoConditionCallback>(DelegateCallbackSlotVideoConditionUpdate)) {
    fn(c.received, c.sent, c.dataBytesDropped, c.ctrlBytesDropped, c.cpuUsage, c.bars);
  }
}
