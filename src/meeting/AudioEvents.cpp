#include "meeting/AudioEvents.h"

#include <cstdlib>
#include <string>

#include "meeting/Convoke.h"
#include "meeting/EventRouting.h"
#include "meeting/Logging.h"

namespace Telmora {

namespace {

const EventRoute<AudioEvents> kAudioRoutes[] = {
    CONVOKE_ROUTE(AudioEvents, "audio_site_changed", processAudioSiteChanged),
    CONVOKE_ROUTE(AudioEvents, "audio_stream_removed", processAudioStreamRemoved),
    CONVOKE_ROUTE(AudioEvents, "amplitude", processAmplitude),
    CONVOKE_ROUTE(AudioEvents, "input_meter", processInputMeter),
    CONVOKE_ROUTE(AudioEvents, "output_meter", processOutputMeter),
    CONVOKE_ROUTE(AudioEvents, "audio_update_conditions", processAudioUpdateConditions),
    CONVOKE_ROUTE(AudioEvents, "binary_playback_ended", processBinaryPlaybackEnded),
    CONVOKE_ROUTE(AudioEvents, "binary_playback_failed", processBinaryPlaybackFailed),
};

void routeAudio(kt::XMLElement* event, const std::string& name) {
  if (!dispatchByName(kAudioRoutes, AudioEvents::sharedInstance(), event, name)) {
    logLine("Convoke: audioCallback: unhandled event name: " + name);
  }
}

bool routeAudioFlat(const FlatEvent& document, FlatEvent::Node event, const Text& name) {
  return dispatchFlat(kAudioRoutes, AudioEvents::sharedInstance(), document, event, name);
}

const EngineRouter kAudioRouter = {
    "Convoke: audioCallback: Could not find event data element",
    "audioCallback, can't find event name",
    "Convoke: audioCallback: ",
    routeAudio,
    routeAudioFlat,
};

// The level of a meter element's text, truncated to 8 bits.
unsigned char level(const Text& text) { return static_cast<unsigned char>(text.number()); }

}  // namespace

void routeAudioEvent(const char* xml, EventPath path) { routeEvent(xml, kAudioRouter, path); }

AudioEvents* AudioEvents::sharedInstance() {
  static AudioEvents* const instance = new AudioEvents();
  return instance;
}

AudioEvents::AudioEvents() : meeting(Convoke::sharedInstance()) {}

bool AudioEvents::processAudioSiteChanged(kt::XMLElement* event) {
  return processAudioSiteChangedOn(TreeDocument(), event);
}
bool AudioEvents::processAudioStreamRemoved(kt::XMLElement* event) {
  return processAudioStreamRemovedOn(TreeDocument(), event);
}
bool AudioEvents::processAmplitude(kt::XMLElement* event) {
  return processAmplitudeOn(TreeDocument(), event);
}
bool AudioEvents::processInputMeter(kt::XMLElement* event) {
  return processInputMeterOn(TreeDocument(), event);
}
bool AudioEvents::processOutputMeter(kt::XMLElement* event) {
  return processOutputMeterOn(TreeDocument(), event);
}
bool AudioEvents::processAudioUpdateConditions(kt::XMLElement* event) {
  return processAudioUpdateConditionsOn(TreeDocument(), event);
}
bool AudioEvents::processBinaryPlaybackEnded(kt::XMLElement* event) {
  return processBinaryPlaybackEndedOn(TreeDocument(), event);
}
bool AudioEvents::processBinaryPlaybackFailed(kt::XMLElement* event) {
  return processBinaryPlaybackFailedOn(TreeDocument(), event);
}

template <class D>
bool AudioEvents::processAudioSiteChangedOn(const D& document, typename D::Node event) {
  std::string id;
  typename D::Node stream = findStream(document, event, "processAudioSiteChanged", id);
  if (stream == nullptr) return false;
  typename D::Node site = document.child(stream, "site");
  typename D::Node email = document.child(stream, "email");
  if (site == nullptr || email == nullptr) {
    logFixed("Convoke: processAudioSiteChanged: could not find either site or email element");
    return false;
  }
  const std::string siteText = document.text(site).str();
  const AudioInfo info(id, siteText);
  meeting->setAudioStreamVolume(id, Convoke::kStartingPlaybackVolume);

  const std::string uuid = document.text(email).str();
  bool existed = false;
  bool hadStream = false;
  ParticipantSnapshot entry = meeting->participants.update([&](Registry::Editor& registry) {
    const Participant* known = registry.find(uuid);
    if (known != nullptr) {
      existed = true;
      hadStream = !known->audioInfo.streamId.empty();
      registry.setAudioInfo(uuid, info);
    } else {
      Participant participant(uuid, siteText, false);
      participant.audioInfo = info;
      registry.insert(uuid, participant);
    }
    return registry.snapshot(uuid);
  });

  MeetingDelegate* delegate = meeting->delegate.load();
  if (delegate == nullptr || !entry) return true;
  if (existed) {
    if (hadStream) {
      delegate->participantAudioUpdated(*entry);
    } else {
      delegate->participantAudioAdded(*entry);
    }
  } else {
    delegate->participantAdded(*entry);
    delegate->participantAudioAdded(*entry);
  }
  return true;
}

template <class D>
bool AudioEvents::processAudioStreamRemovedOn(const D& document, typename D::Node event) {
  std::string id;
  if (findStream(document, event, "processAudioStreamRemoved", id) == nullptr) return false;
  ParticipantSnapshot removed = meeting->participants.update([&](Registry::Editor& registry) {
    const std::string* key = registry.firstKeyByAudioStreamId(id);
    if (key == nullptr) return ParticipantSnapshot();
    ParticipantSnapshot found = registry.snapshot(*key);
    if (!registry.erase(found->uuid)) return ParticipantSnapshot();
    return found;
  });
  MeetingDelegate* delegate = meeting->delegate.load();
  if (removed && delegate != nullptr) delegate->participantRemoved(*removed);
  return true;
}

template <class D>
bool AudioEvents::processAmplitudeOn(const D& document, typename D::Node event) {
  std::string id;
  typename D::Node stream = findStream(document, event, "processAmplitude", id);
  if (stream == nullptr) return false;
  Text muted;
  if (!document.attribute(stream, "muted", muted)) {
    logFixed("Convoke: processAmplitude: could not find muted attribute");
    return false;
  }
  typename D::Node amplitude = document.child(stream, "amplitude");
  if (amplitude == nullptr) {
    logFixed("Convoke: processAmplitude: could not find amplitude element");
    return false;
  }
  bool found = false;
  std::string unregisteredUuid;
  ParticipantSnapshot registered =
      meeting->participants.registeredByAudioStreamId(id, found, unregisteredUuid);
  if (!found) {
    logLine("Convoke: processAmplitude: could not find participant for this stream: " + id);
    return false;
  }
  MeetingDelegate* delegate = meeting->delegate.load();
  if (delegate == nullptr) return true;
  if (!registered) {
    logLine("Convoke: processAmplitude:  Could not find real participant object for user UUID: " +
            unregisteredUuid);
    return true;
  }
  delegate->participantAmplitudeChanged(*registered, level(document.text(amplitude)),
                                        muted.equals("true"));
  return true;
}

namespace {

// The handlers that hand one child's value to the delegate: the text of the child named child, read
// by convert, goes to the delegate operation notify; without the child, the line missing is logged.
template <class D, class Value>
bool reportChildValue(Convoke* meeting, const D& document, typename D::Node event,
                      const char* child, const char* missing, Value (*convert)(const Text&),
                      void (MeetingDelegate::*notify)(Value)) {
  typename D::Node node = document.child(event, child);
  if (node == nullptr) {
    logFixed(missing);
    return false;
  }
  MeetingDelegate* delegate = meeting->delegate.load();
  if (delegate != nullptr) (delegate->*notify)(convert(document.text(node)));
  return true;
}

unsigned long long playbackId(const Text& text) {
  return static_cast<unsigned long long>(text.longNumber());
}

}  // namespace

template <class D>
bool AudioEvents::processInputMeterOn(const D& document, typename D::Node event) {
  return reportChildValue(meeting, document, event, "meter",
                          "Convoke: processInputMeter: could not find meter element", level,
                          &MeetingDelegate::inputMeterChanged);
}

template <class D>
bool AudioEvents::processOutputMeterOn(const D& document, typename D::Node event) {
  return reportChildValue(meeting, document, event, "meter",
                          "Convoke: processOutputMeter: could not find meter element", level,
                          &MeetingDelegate::outputMeterChanged);
}

template <class D>
bool AudioEvents::processAudioUpdateConditionsOn(const D& document, typename D::Node event) {
  typename D::Node conditions = document.child(event, "conditions");
  if (conditions == nullptr) {
    logFixed("Convoke: processAudioUpdateConditions: could not find conditions element");
    return false;
  }
  AudioCondition condition;
  readLinkFigures(document, conditions, condition);
  typename D::Node upstream = document.child(conditions, "upstream");
  condition.upstreamLoss = attributeNumber(document, upstream, "loss");
  condition.upstreamLatency = attributeNumber(document, upstream, "latency");
  typename D::Node downstream = document.child(conditions, "downstream");
  condition.downstreamLoss = attributeNumber(document, downstream, "loss");
  condition.downstreamLatency = attributeNumber(document, downstream, "latency");
  MeetingDelegate* delegate = meeting->delegate.load();
  if (delegate != nullptr) delegate->audioConditionUpdate(condition);
  return true;
}

template <class D>
bool AudioEvents::processBinaryPlaybackEndedOn(const D& document, typename D::Node event) {
  return reportChildValue(meeting, document, event, "data",
                          "Convoke: processBinaryPlaybackEnded: could not find data element",
                          playbackId, &MeetingDelegate::binaryPlaybackEnded);
}

template <class D>
bool AudioEvents::processBinaryPlaybackFailedOn(const D& document, typename D::Node event) {
  return reportChildValue(meeting, document, event, "data",
                          "Convoke: processBinaryPlaybackFailed: could not find data element",
                          playbackId, &MeetingDelegate::binaryPlaybackFailed);
}

}  // namespace Telmora

extern "C" void audioCallback(void*, const char* xml) {
  Telmora::routeAudioEvent(xml, Telmora::EventPath::kFastWhenCanonical);
}
