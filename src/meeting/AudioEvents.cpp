#include "meeting/AudioEvents.h"

#include <cstdlib>
#include <string>

#include "meeting/Convoke.h"
#include "meeting/EventRouting.h"
#include "meeting/Logging.h"

namespace Telmora {

namespace {

const EventRoute<AudioEvents> kAudioRoutes[] = {
    CONVOKE_ROUTE(AudioEvents, "audio_site_changed", &AudioEvents::processAudioSiteChanged),
    CONVOKE_ROUTE(AudioEvents, "audio_stream_removed", &AudioEvents::processAudioStreamRemoved),
    CONVOKE_ROUTE(AudioEvents, "amplitude", &AudioEvents::processAmplitude),
    CONVOKE_ROUTE(AudioEvents, "input_meter", &AudioEvents::processInputMeter),
    CONVOKE_ROUTE(AudioEvents, "output_meter", &AudioEvents::processOutputMeter),
    CONVOKE_ROUTE(AudioEvents, "audio_update_conditions",
                  &AudioEvents::processAudioUpdateConditions),
    CONVOKE_ROUTE(AudioEvents, "binary_playback_ended", &AudioEvents::processBinaryPlaybackEnded),
    CONVOKE_ROUTE(AudioEvents, "binary_playback_failed", &AudioEvents::processBinaryPlaybackFailed),
};

void routeAudio(kt::XMLElement* event, const std::string& name) {
  if (!dispatchByName(kAudioRoutes, AudioEvents::sharedInstance(), event, name)) {
    logLine("Convoke: audioCallback: unhandled event name: " + name);
  }
}

}  // namespace

AudioEvents* AudioEvents::sharedInstance() {
  static AudioEvents* const instance = new AudioEvents();
  return instance;
}

AudioEvents::AudioEvents() : meeting(Convoke::sharedInstance()) {}

bool AudioEvents::processAudioSiteChanged(kt::XMLElement* event) {
  std::string id;
  const kt::XMLElement* stream = findStream(event, "processAudioSiteChanged", id);
  if (stream == nullptr) return false;
  const kt::XMLElement* site = stream->FindElementByName("site");
  const kt::XMLElement* email = stream->FindElementByName("email");
  if (site == nullptr || email == nullptr) {
    logLine("Convoke: processAudioSiteChanged: could not find either site or email element");
    return false;
  }
  const AudioInfo info(id, site->value);
  // Every announced stream starts at half volume.
  meeting->setAudioStreamVolume(id, 50);

  const std::string& uuid = email->value;
  bool existed = false;
  bool hadStream = false;
  ParticipantSnapshot entry = meeting->participants.update([&](Registry::Editor& registry) {
    const Participant* known = registry.find(uuid);
    if (known != nullptr) {
      existed = true;
      hadStream = !known->audioInfo.streamId.empty();
      registry.setAudioInfo(uuid, info);
    } else {
      Participant participant(uuid, site->value, false);
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

bool AudioEvents::processAudioStreamRemoved(kt::XMLElement* event) {
  std::string id;
  if (findStream(event, "processAudioStreamRemoved", id) == nullptr) return false;
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

bool AudioEvents::processAmplitude(kt::XMLElement* event) {
  const kt::XMLElement* stream = event->FindElementByName("stream");
  if (stream == nullptr) {
    logLine("Convoke: processAmplitude: could not find stream element");
    return false;
  }
  const kt::XMLAttribute* id = stream->FindAttributeByName("id");
  if (id == nullptr) {
    logLine("Convoke: processAmplitude: could not find stream id");
    return false;
  }
  const kt::XMLAttribute* muted = stream->FindAttributeByName("muted");
  if (muted == nullptr) {
    logLine("Convoke: processAmplitude: could not find muted attribute");
    return false;
  }
  const kt::XMLElement* amplitude = stream->FindElementByName("amplitude");
  if (amplitude == nullptr) {
    logLine("Convoke: processAmplitude: could not find amplitude element");
    return false;
  }
  ParticipantSnapshot found;
  ParticipantSnapshot registered =
      meeting->participants.registeredByAudioStreamId(id->value, found);
  if (!found) {
    logLine("Convoke: processAmplitude: could not find participant for this stream: " + id->value);
    return false;
  }
  MeetingDelegate* delegate = meeting->delegate.load();
  if (delegate == nullptr) return true;
  if (!registered) {
    logLine("Convoke: processAmplitude:  Could not find real participant object for user UUID: " +
            found->uuid);
    return true;
  }
  delegate->participantAmplitudeChanged(
      *registered, static_cast<unsigned char>(elementNumber(amplitude)), muted->value == "true");
  return true;
}

bool AudioEvents::processInputMeter(kt::XMLElement* event) {
  const kt::XMLElement* meter = event->FindElementByName("meter");
  if (meter == nullptr) {
    logLine("Convoke: processInputMeter: could not find meter element");
    return false;
  }
  MeetingDelegate* delegate = meeting->delegate.load();
  if (delegate != nullptr)
    delegate->inputMeterChanged(static_cast<unsigned char>(elementNumber(meter)));
  return true;
}

bool AudioEvents::processOutputMeter(kt::XMLElement* event) {
  const kt::XMLElement* meter = event->FindElementByName("meter");
  if (meter == nullptr) {
    logLine("Convoke: processOutputMeter: could not find meter element");
    return false;
  }
  MeetingDelegate* delegate = meeting->delegate.load();
  if (delegate != nullptr) {
    delegate->outputMeterChanged(static_cast<unsigned char>(elementNumber(meter)));
  }
  return true;
}

bool AudioEvents::processAudioUpdateConditions(kt::XMLElement* event) {
  const kt::XMLElement* conditions = event->FindElementByName("conditions");
  if (conditions == nullptr) {
    logLine("Convoke: processAudioUpdateConditions: could not find conditions element");
    return false;
  }
  AudioCondition condition;
  condition.received = childNumber(conditions, "received");
  condition.sent = childNumber(conditions, "sent");
  condition.dataBytesDropped = childNumber(conditions, "data_bytes_dropped");
  condition.ctrlBytesDropped = childNumber(conditions, "ctrl_bytes_dropped");
  condition.cpuUsage = childNumber(conditions, "cpu_usage");
  condition.bars = childNumber(conditions, "bars");
  const kt::XMLElement* upstream = conditions->FindElementByName("upstream");
  condition.upstreamLoss = attributeNumber(upstream, "loss");
  condition.upstreamLatency = attributeNumber(upstream, "latency");
  const kt::XMLElement* downstream = conditions->FindElementByName("downstream");
  condition.downstreamLoss = attributeNumber(downstream, "loss");
  condition.downstreamLatency = attributeNumber(downstream, "latency");
  MeetingDelegate* delegate = meeting->delegate.load();
  if (delegate != nullptr) delegate->audioConditionUpdate(condition);
  return true;
}

bool AudioEvents::processBinaryPlaybackEnded(kt::XMLElement* event) {
  const kt::XMLElement* data = event->FindElementByName("data");
  if (data == nullptr) {
    logLine("Convoke: processBinaryPlaybackEnded: could not find data element");
    return false;
  }
  MeetingDelegate* delegate = meeting->delegate.load();
  if (delegate != nullptr) {
    delegate->binaryPlaybackEnded(static_cast<unsigned long long>(std::atoll(data->value.c_str())));
  }
  return true;
}

bool AudioEvents::processBinaryPlaybackFailed(kt::XMLElement* event) {
  const kt::XMLElement* data = event->FindElementByName("data");
  if (data == nullptr) {
    logLine("Convoke: processBinaryPlaybackFailed: could not find data element");
    return false;
  }
  MeetingDelegate* delegate = meeting->delegate.load();
  if (delegate != nullptr) {
    delegate->binaryPlaybackFailed(
        static_cast<unsigned long long>(std::atoll(data->value.c_str())));
  }
  return true;
}

}  // namespace Telmora

extern "C" void audioCallback(void*, const char* xml) {
  Telmora::routeEvent(xml, "Convoke: audioCallback: Could not find event data element",
                      "audioCallback, can't find event name",
                      "Convoke: audioCallback: ", Telmora::routeAudio);
}
