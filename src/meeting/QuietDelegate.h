// A delegate that ignores every notification. Not used by the library itself: tests, benchmarks and
// fuzz targets derive from it and override what they watch.
#ifndef CONVOKE_MEETING_QUIETDELEGATE_H
#define CONVOKE_MEETING_QUIETDELEGATE_H

#include <string>

#include "meeting/MeetingDelegate.h"

namespace Telmora {

class QuietDelegate : public MeetingDelegate {
 public:
  void participantAdded(const Participant&) override {}
  void participantRemoved(const Participant&) override {}
  void participantAudioAdded(const Participant&) override {}
  void participantAudioUpdated(const Participant&) override {}
  void participantVideoAdded(const Participant&, std::string) override {}
  void participantVideoUpdated(const Participant&, std::string) override {}
  void participantVideoRemoved(const Participant&, std::string) override {}
  void participantVideoRemoteLayoutChanged(const Participant&, std::string) override {}
  void videoStreamBufferReady(std::string, void*) override {}
  void videoFrameReady(std::string, void*) override {}
  void inputMeterChanged(unsigned char) override {}
  void outputMeterChanged(unsigned char) override {}
  void participantAmplitudeChanged(const Participant&, unsigned char, bool) override {}
  void binaryPlaybackEnded(unsigned long long) override {}
  void binaryPlaybackFailed(unsigned long long) override {}
  void audioConditionUpdate(AudioCondition&) override {}
  void videoConditionUpdate(VideoCondition&) override {}
};

}  // namespace Telmora

#endif  // CONVOKE_MEETING_QUIETDELEGATE_H
