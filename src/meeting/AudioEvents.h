// Telmora::AudioEvents turns the audio engine's event documents into registry changes and delegate
// notifications. audioCallback, registered with the audio engine, parses each document and routes
// it by the event's name to one handler.
//
// Thread safety: the handlers run on the audio engine's thread (and may run while the video
// engine's thread and the host use the session); they touch the registry only through its locked
// operations and call the delegate with no lock held.
#ifndef CONVOKE_MEETING_AUDIOEVENTS_H
#define CONVOKE_MEETING_AUDIOEVENTS_H

#include "convoke/export.h"

namespace kt {
class XMLElement;
}

extern "C" CONVOKE_API void audioCallback(void* context, const char* xml);

namespace Telmora {

class Convoke;
enum class EventPath;

// What audioCallback does, with the choice of path (the scan of canonical documents, or the tree
// only) left to the caller: tests compare the two.
void routeAudioEvent(const char* xml, EventPath path);

class AudioEvents {
 public:
  static AudioEvents* sharedInstance();

  // Each handler receives the "event" element and returns true when the event carried what it
  // needs.
  bool processAudioSiteChanged(kt::XMLElement* event);
  bool processAudioStreamRemoved(kt::XMLElement* event);
  bool processAmplitude(kt::XMLElement* event);
  bool processInputMeter(kt::XMLElement* event);
  bool processOutputMeter(kt::XMLElement* event);
  bool processAudioUpdateConditions(kt::XMLElement* event);
  bool processBinaryPlaybackEnded(kt::XMLElement* event);
  bool processBinaryPlaybackFailed(kt::XMLElement* event);

  // The bodies of the handlers above, on either kind of event document (EventDocument.h): the tree
  // handlers run them on the tree, the router also on a scan of a canonical document.
  template <class D>
  bool processAudioSiteChangedOn(const D& document, typename D::Node event);
  template <class D>
  bool processAudioStreamRemovedOn(const D& document, typename D::Node event);
  template <class D>
  bool processAmplitudeOn(const D& document, typename D::Node event);
  template <class D>
  bool processInputMeterOn(const D& document, typename D::Node event);
  template <class D>
  bool processOutputMeterOn(const D& document, typename D::Node event);
  template <class D>
  bool processAudioUpdateConditionsOn(const D& document, typename D::Node event);
  template <class D>
  bool processBinaryPlaybackEndedOn(const D& document, typename D::Node event);
  template <class D>
  bool processBinaryPlaybackFailedOn(const D& document, typename D::Node event);

  Convoke* const meeting;

 private:
  AudioEvents();
};

}  // namespace Telmora

#endif  // CONVOKE_MEETING_AUDIOEVENTS_H
