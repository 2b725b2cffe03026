// The delegate's notification slots, in slot order: the library's one list of them.
//
// X(Slot, operation): DelegateCallbackSlot<Slot> is the slot's number in the public callback table
// (include/convoke/convoke.h), `operation` the MeetingDelegate member that raises it. The host's
// table, the C bridge and MeetingDelegate follow this order; CMeetingDelegate.cpp checks it against
// the public enum at compile time.
#ifndef CONVOKE_CAPI_DELEGATESLOTS_H
#define CONVOKE_CAPI_DELEGATESLOTS_H

#define CONVOKE_DELEGATE_SLOTS(X)                                             \
  X(ParticipantAdded, participantAdded)                                       \
  X(ParticipantRemoved, participantRemoved)                                   \
  X(ParticipantAudioAdded, participantAudioAdded)                             \
  X(ParticipantAudioUpdated, participantAudioUpdated)                         \
  X(ParticipantVideoAdded, participantVideoAdded)                             \
  X(ParticipantVideoUpdated, participantVideoUpdated)                         \
  X(ParticipantVideoRemoved, participantVideoRemoved)                         \
  X(ParticipantVideoRemoteLayoutChanged, participantVideoRemoteLayoutChanged) \
  X(VideoStreamBufferReady, videoStreamBufferReady)                           \
  X(VideoFrameReady, videoFrameReady)                                         \
  X(InputMeterChanged, inputMeterChanged)                                     \
  X(OutputMeterChanged, outputMeterChanged)                                   \
  X(ParticipantAmplitudeChanged, participantAmplitudeChanged)                 \
  X(LogMessage, logMessage)                                                   \
  X(BinaryPlaybackEnded, binaryPlaybackEnded)                                 \
  X(BinaryPlaybackFailed, binaryPlaybackFailed)                               \
  X(AudioConditionUpdate, audioConditionUpdate)                               \
  X(VideoConditionUpdate, videoConditionUpdate)

namespace Telmora {

#define CONVOKE_DELEGATE_SLOT_ONE(Slot, operation) +1
constexpr unsigned int kDelegateSlotCount = 0 CONVOKE_DELEGATE_SLOTS(CONVOKE_DELEGATE_SLOT_ONE);
#undef CONVOKE_DELEGATE_SLOT_ONE

}  // namespace Telmora

#endif  // CONVOKE_CAPI_DELEGATESLOTS_H
