#include "meeting/CMeetingDelegate.h"

std::atomic<void*> cmDelegateMethods[Telmora::kDelegateSlotCount] = {};
CMeetingDelegate gMeetingDelegate;

namespace {

enum Slot : unsigned int {
  kParticipantAdded = 0,
  kParticipantRemoved,
  kParticipantAudioAdded,
  kParticipantAudioUpdated,
  kParticipantVideoAdded,
  kParticipantVideoUpdated,
  kParticipantVideoRemoved,
  kParticipantVideoRemoteLayoutChanged,
  kVideoStreamBufferReady,
  kVideoFrameReady,
  kInputMeterChanged,
  kOutputMeterChanged,
  kParticipantAmplitudeChanged,
  kLogMessage,
  kBinaryPlaybackEnded,
  kBinaryPlaybackFailed,
  kAudioConditionUpdate,
  kVideoConditionUpdate,
};

using ParticipantFn = void (*)(const char*);
using ParticipantStreamFn = void (*)(const char*, const char*);
using BufferFn = void (*)(const char*, void*);
using MeterFn = void (*)(unsigned char);
using AmplitudeFn = void (*)(const char*, unsigned char, bool);
using LogFn = void (*)(unsigned int, std::string);
using PlaybackFn = void (*)(unsigned long long);
using AudioConditionFn = void (*)(int, int, int, int, int, int, int, int, int, int);
using VideoConditionFn = void (*)(int, int, int, int, int, int);

template <class Fn>
Fn slot(Slot index) {
  return reinterpret_cast<Fn>(cmDelegateMethods[index].load(std::memory_order_acquire));
}

void callParticipant(Slot index, const Telmora::Participant& participant) {
  if (ParticipantFn fn = slot<ParticipantFn>(index)) fn(participant.uuid.c_str());
}

void callParticipantStream(Slot index, const Telmora::Participant& participant,
                           const std::string& streamId) {
  if (ParticipantStreamFn fn = slot<ParticipantStreamFn>(index)) {
    fn(participant.uuid.c_str(), streamId.c_str());
  }
}

}  // namespace

void CMeetingDelegate::participantAdded(const Telmora::Participant& p) {
  callParticipant(kParticipantAdded, p);
}

void CMeetingDelegate::participantRemoved(const Telmora::Participant& p) {
  callParticipant(kParticipantRemoved, p);
}

void CMeetingDelegate::participantAudioAdded(const Telmora::Participant& p) {
  callParticipant(kParticipantAudioAdded, p);
}

void CMeetingDelegate::participantAudioUpdated(const Telmora::Participant& p) {
  callParticipant(kParticipantAudioUpdated, p);
}

void CMeetingDelegate::participantVideoAdded(const Telmora::Participant& p, std::string streamId) {
  callParticipantStream(kParticipantVideoAdded, p, streamId);
}

void CMeetingDelegate::participantVideoUpdated(const Telmora::Participant& p,
                                               std::string streamId) {
  callParticipantStream(kParticipantVideoUpdated, p, streamId);
}

void CMeetingDelegate::participantVideoRemoved(const Telmora::Participant& p,
                                               std::string streamId) {
  callParticipantStream(kParticipantVideoRemoved, p, streamId);
}

void CMeetingDelegate::participantVideoRemoteLayoutChanged(const Telmora::Participant& p,
                                                           std::string streamId) {
  callParticipantStream(kParticipantVideoRemoteLayoutChanged, p, streamId);
}

void CMeetingDelegate::videoStreamBufferReady(std::string streamId, void* pixelBuffer) {
  if (BufferFn fn = slot<BufferFn>(kVideoStreamBufferReady)) fn(streamId.c_str(), pixelBuffer);
}

void CMeetingDelegate::videoFrameReady(std::string streamId, void* pixelBuffer) {
  if (BufferFn fn = slot<BufferFn>(kVideoFrameReady)) fn(streamId.c_str(), pixelBuffer);
}

void CMeetingDelegate::inputMeterChanged(unsigned char level) {
  if (MeterFn fn = slot<MeterFn>(kInputMeterChanged)) fn(level);
}

void CMeetingDelegate::outputMeterChanged(unsigned char level) {
  if (MeterFn fn = slot<MeterFn>(kOutputMeterChanged)) fn(level);
}

void CMeetingDelegate::participantAmplitudeChanged(const Telmora::Participant& p,
                                                   unsigned char amplitude, bool muted) {
  if (AmplitudeFn fn = slot<AmplitudeFn>(kParticipantAmplitudeChanged)) {
    fn(p.uuid.c_str(), amplitude, muted);
  }
}

void CMeetingDelegate::logMessage(unsigned int level, std::string text) {
  if (LogFn fn = slot<LogFn>(kLogMessage)) fn(level, std::move(text));
}

void CMeetingDelegate::binaryPlaybackEnded(unsigned long long playbackId) {
  if (PlaybackFn fn = slot<PlaybackFn>(kBinaryPlaybackEnded)) fn(playbackId);
}

void CMeetingDelegate::binaryPlaybackFailed(unsigned long long playbackId) {
  if (PlaybackFn fn = slot<PlaybackFn>(kBinaryPlaybackFailed)) fn(playbackId);
}

void CMeetingDelegate::audioConditionUpdate(Telmora::AudioCondition& c) {
  if (AudioConditionFn fn = slot<AudioConditionFn>(kAudioConditionUpdate)) {
    fn(c.received, c.sent, c.dataBytesDropped, c.ctrlBytesDropped, c.cpuUsage, c.bars,
       c.upstreamLoss, c.upstreamLatency, c.downstreamLoss, c.downstreamLatency);
  }
}

void CMeetingDelegate::videoConditionUpdate(Telmora::VideoCondition& c) {
  if (VideoConditionFn fn = slot<VideoConditionFn>(kVideoConditionUpdate)) {
    fn(c.received, c.sent, c.dataBytesDropped, c.ctrlBytesDropped, c.cpuUsage, c.bars);
  }
}
