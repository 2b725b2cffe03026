#include "meeting/VideoEvents.h"

#include <string>
#include <utility>
#include <vector>

#include "meeting/Convoke.h"
#include "meeting/EventRouting.h"
#include "meeting/Logging.h"

namespace Telmora {

namespace {

const EventRoute<VideoEvents> kVideoRoutes[] = {
    CONVOKE_ROUTE(VideoEvents, "video_site_changed", processVideoSiteChanged),
    CONVOKE_ROUTE(VideoEvents, "video_stream_buffer_ready", processVideoStreamBufferReady),
    CONVOKE_ROUTE(VideoEvents, "video_stream_size_changed", processVideoStreamSizeChanged),
    CONVOKE_ROUTE(VideoEvents, "remote_layout_changed", processRemoteLayoutChanged),
    CONVOKE_ROUTE(VideoEvents, "video_stream_removed", processVideoStreamRemoved),
    // Recognised and dropped: condition updates of the video link are not reported.
    CONVOKE_DROPPED_ROUTE(VideoEvents, "video_update_conditions"),
};

void routeVideo(kt::XMLElement* event, const std::string& name) {
  if (!dispatchByName(kVideoRoutes, VideoEvents::sharedInstance(), event, name)) {
    logLine("Convoke: videoCallback: unhandled event name: " + name);
  }
}

bool routeVideoFlat(const FlatEvent& document, FlatEvent::Node event, const Text& name) {
  return dispatchFlat(kVideoRoutes, VideoEvents::sharedInstance(), document, event, name);
}

const EngineRouter kVideoRouter = {
    "Convoke: videoCallback: Could not find event data element",
    "Convoke: videoCallback, can't find event name",
    "Convoke: videoCallback: ",
    routeVideo,
    routeVideoFlat,
};

// The text of an optional element, empty when it is missing.
template <class D>
std::string optionalText(const D& document, typename D::Node element) {
  return element != nullptr ? document.text(element).str() : std::string();
}

}  // namespace

namespace {

// The stopTasks generation at which the video event being routed on this thread began, or
// kOutsideEvent when a handler runs outside routeVideoEvent (called directly).
constexpr uint64_t kOutsideEvent = ~uint64_t{0};
thread_local uint64_t tEventGeneration = kOutsideEvent;

}  // namespace

void routeVideoEvent(const char* xml, EventPath path) {
  struct Restore {
    uint64_t saved = tEventGeneration;
    ~Restore() { tEventGeneration = saved; }
  } restore;
  tEventGeneration = VideoEvents::sharedInstance()->stopGeneration();
  routeEvent(xml, kVideoRouter, path);
}

VideoEvents* VideoEvents::sharedInstance() {
  // Never destroyed: detached timer threads may look tasks up while the process exits.
  static VideoEvents* const instance = new VideoEvents();
  return instance;
}

VideoEvents::VideoEvents() : meeting(Convoke::sharedInstance()) {}

bool VideoEvents::processVideoSiteChanged(kt::XMLElement* event) {
  return processVideoSiteChangedOn(TreeDocument(), event);
}
bool VideoEvents::processVideoStreamBufferReady(kt::XMLElement* event) {
  return processVideoStreamBufferReadyOn(TreeDocument(), event);
}
bool VideoEvents::processVideoStreamSizeChanged(kt::XMLElement* event) {
  return processVideoStreamSizeChangedOn(TreeDocument(), event);
}
bool VideoEvents::processRemoteLayoutChanged(kt::XMLElement* event) {
  return processRemoteLayoutChangedOn(TreeDocument(), event);
}
bool VideoEvents::processVideoStreamRemoved(kt::XMLElement* event) {
  return processVideoStreamRemovedOn(TreeDocument(), event);
}
bool VideoEvents::processVideoUpdateConditions(kt::XMLElement* event) {
  return processVideoUpdateConditionsOn(TreeDocument(), event);
}

template <class D>
bool VideoEvents::processVideoSiteChangedOn(const D& document, typename D::Node event) {
  std::string id;
  typename D::Node stream = findStream(document, event, "processVideoSiteChanged", id);
  if (stream == nullptr) return false;
  typename D::Node email = document.child(stream, "email");
  typename D::Node active = document.child(stream, "active");
  typename D::Node name = document.child(stream, "name");
  typename D::Node local = document.child(stream, "local");
  typename D::Node layout = document.child(stream, "layout");
  typename D::Node width = document.child(stream, "width");
  typename D::Node height = document.child(stream, "height");
  if (email == nullptr || active == nullptr || name == nullptr || local == nullptr ||
      layout == nullptr || width == nullptr || height == nullptr) {
    logFixed("Convoke: processVideoSiteChanged:  Missing required element");
    return false;
  }
  typename D::Node deviceName = document.child(stream, "device_name");
  typename D::Node codecName = document.child(stream, "codecName");
  typename D::Node site = document.child(stream, "site");

  const std::string localText = document.text(local).str();
  std::string displayName = document.text(name).str();
  if (localText == "true" && deviceName != nullptr) displayName = document.text(deviceName).str();
  const std::string siteText = optionalText(document, site);
  const VideoInfo info(id, siteText, displayName, optionalText(document, codecName), localText,
                       document.text(active).str(), document.text(layout).str(),
                       document.text(width).str(), document.text(height).str());
  const std::string emailText = document.text(email).str();
  const Participant announced(emailText, siteText, info.local);

  bool added = false;
  bool isNew = false;
  ParticipantSnapshot entry = meeting->participants.update([&](Registry::Editor& registry) {
    // Local streams are filed under the local participant, whatever the event's e-mail says.
    const std::string key = info.local ? registry.localUuid() : emailText;
    if (registry.find(key) == nullptr) {
      Participant participant = announced;
      participant.videoInfos.emplace(id, info);
      registry.insert(key, participant);
      added = isNew = true;
    } else {
      added = registry.addVideoInfo(key, info);
    }
    return registry.snapshot(key);
  });

  MeetingDelegate* delegate = meeting->delegate.load();
  if (delegate == nullptr || !entry) return true;
  if (added) {
    if (isNew) delegate->participantAdded(*entry);
    delegate->participantVideoAdded(*entry, id);
  } else {
    delegate->participantVideoUpdated(*entry, id);
  }
  return true;
}

template <class D>
bool VideoEvents::processVideoStreamBufferReadyOn(const D& document, typename D::Node event) {
  std::string id;
  typename D::Node stream = findStream(document, event, "processVideoStreamBufferReady", id);
  if (stream == nullptr) return false;
  Text pixelBuffer;
  if (!document.attribute(stream, "pixel_buffer", pixelBuffer)) {
    logFixed("Convoke: processVideoStreamBufferReady: could not find pixel_buffer ");
    return false;
  }
  // Text that is not a number throws here; the callback boundary catches it.
  const uint64_t handle = std::stoull(pixelBuffer.str(), nullptr, 10);

  meeting->participants.update([&](Registry::Editor& registry) {
    const std::string* key = registry.firstKeyByVideoStreamId(id);
    if (key == nullptr) return;
    const std::string uuid = registry.find(*key)->uuid;
    registry.modifyVideoInfo(uuid, id, [](VideoInfo& video) { video.active = true; });
  });

  MeetingDelegate* delegate = meeting->delegate.load();
  if (delegate != nullptr) delegate->videoStreamBufferReady(id, reinterpret_cast<void*>(handle));

  logLine("Convoke: processVideoStreamBufferReady: starting timer task for " + id);
  VideoTimerTask task(id, handle);
  std::lock_guard<std::mutex> lock(tasksMutex_);
  // stopTasks ran (a leave) while this event was on its way: the meeting it belonged to is gone,
  // and a task started now would report frames after the leave returned.
  if (tEventGeneration != kOutsideEvent && tEventGeneration != stopGeneration_.load()) return true;
  // A task already registered for the stream is kept, with its first handle, and started again.
  auto registered = timerTasks.emplace(id, task).first;
  registered->second.run();
  return true;
}

template <class D>
bool VideoEvents::processVideoStreamSizeChangedOn(const D& document, typename D::Node event) {
  std::string id;
  typename D::Node stream = findStream(document, event, "processVideoStreamSizeChanged", id);
  if (stream == nullptr) return false;
  typename D::Node window = document.child(stream, "window");
  if (window == nullptr) {
    logFixed("Convoke: processVideoStreamSizeChanged: could not find window element");
    return false;
  }
  typename D::Node width = document.child(window, "width");
  typename D::Node height = document.child(window, "height");
  if (width == nullptr || height == nullptr) {
    logFixed(
        "Convoke: processVideoStreamSizeChanged:  could not find either width or height element");
    return false;
  }
  const int32_t newWidth = document.text(width).number();
  const int32_t newHeight = document.text(height).number();
  enum class Outcome { kNoStream, kStored, kNoParticipant, kNoVideoInfo };
  const Outcome outcome = meeting->participants.update([&](Registry::Editor& registry) {
    const std::string* key = registry.firstKeyByVideoStreamId(id);
    if (key == nullptr) return Outcome::kNoStream;
    const std::string uuid = registry.find(*key)->uuid;
    if (registry.find(uuid) == nullptr) return Outcome::kNoParticipant;
    const bool stored = registry.modifyVideoInfo(uuid, id, [&](VideoInfo& video) {
      video.width = newWidth;
      video.height = newHeight;
    });
    return stored ? Outcome::kStored : Outcome::kNoVideoInfo;
  });
  if (outcome == Outcome::kNoVideoInfo) {
    logFixed(
        "Convoke: processVideoStreamSizeChanged:  could not find Video Info record to update with "
        "new width/height");
  } else if (outcome == Outcome::kNoParticipant) {
    logFixed(
        "Convoke: processVideoStreamSizeChanged:  could not find Participant record to update with "
        "new width/height");
  }
  return true;
}

template <class D>
bool VideoEvents::processRemoteLayoutChangedOn(const D& document, typename D::Node event) {
  std::string id;
  typename D::Node stream = findStream(document, event, "processRemoteLayoutChanged", id);
  if (stream == nullptr) return false;
  typename D::Node layout = document.child(stream, "layout");
  if (layout == nullptr) {
    logFixed("Convoke: processRemoteLayoutChanged: could not find layout element");
    return false;
  }
  const Text layoutText = document.text(layout);
  logLine("Convoke: processRemoteLayoutChanged: new layout constant is: " + layoutText.str());
  const uint8_t value = static_cast<uint8_t>(layoutText.number());
  // Under one lock: the participant holding the stream, whether the one registered under its UUID
  // holds it, the layout written when it changed (a write copies the record), and the entry to
  // report.
  ParticipantSnapshot found;
  ParticipantSnapshot entry;
  bool registered = false;
  bool hasStream = false;
  meeting->participants.update([&](Registry::Editor& registry) {
    const auto* holder = registry.firstEntryByVideoStreamId(id);
    if (holder == nullptr) return;
    found = holder->second;
    // A participant is normally stored under its own UUID: then it is the registered one.
    const bool direct = holder->first == found->uuid;
    const Participant* stored = direct ? found.get() : registry.find(found->uuid);
    registered = stored != nullptr;
    if (!registered) return;
    auto video = stored->videoInfos.find(id);
    hasStream = video != stored->videoInfos.end();
    if (hasStream && video->second.layout != value) {
      const auto write = [value](VideoInfo& info) { info.layout = value; };
      if (direct) {
        registry.modifyVideoInfo(holder, id, write);
      } else {
        registry.modifyVideoInfo(found->uuid, id, write);
      }
    }
    entry = direct ? holder->second : registry.snapshot(found->uuid);
  });
  if (!found) return true;
  if (registered) {
    static const std::string kFound(
        "Convoke: processRemoteLayoutChanged: Found participant, now looking for videoINfo ");
    static const std::string kFoundVideo(
        "Convoke: processRemoteLayoutChanged: found videoInfo iterator");
    logLine(kFound);
    if (hasStream) logLine(kFoundVideo);
  }
  MeetingDelegate* delegate = meeting->delegate.load();
  if (delegate != nullptr && entry) delegate->participantVideoRemoteLayoutChanged(*entry, id);
  return true;
}

template <class D>
bool VideoEvents::processVideoStreamRemovedOn(const D& document, typename D::Node event) {
  std::string id;
  if (findStream(document, event, "processVideoStreamRemoved", id) == nullptr) return false;
  {
    std::unique_lock<std::mutex> lock(tasksMutex_);
    auto task = timerTasks.find(id);
    if (task != timerTasks.end()) {
      task->second.state()->requestStop();
      timerTasks.erase(task);
      lock.unlock();
      logLine("Convoke: TimerTask: Stopping TimerTask for streamID " + id);
    }
  }
  ParticipantSnapshot found = meeting->participants.snapshotByVideoStreamId(id);
  if (!found) {
    logLine("Convoke: processVideoStreamRemoved: could not find Participant for stream id" + id);
    return true;
  }
  MeetingDelegate* delegate = meeting->delegate.load();
  if (delegate != nullptr) {
    logFixed("Convoke: processVideoStreamRemoved: calling participantVideoRemoved");
    delegate->participantVideoRemoved(*found, id);
  }
  meeting->participants.update(
      [&](Registry::Editor& registry) { registry.eraseVideoInfo(found->uuid, id); });
  return true;
}

template <class D>
bool VideoEvents::processVideoUpdateConditionsOn(const D& document, typename D::Node event) {
  typename D::Node conditions = document.child(event, "conditions");
  if (conditions == nullptr) {
    logFixed("Convoke: processVideoUpdateConditions: could not find conditions element");
    return false;
  }
  VideoCondition condition;
  readLinkFigures(document, conditions, condition);
  MeetingDelegate* delegate = meeting->delegate.load();
  if (delegate != nullptr) delegate->videoConditionUpdate(condition);
  return true;
}

// ---- timer tasks -----------------------------------------------------------------------------

void VideoEvents::stopTaskForStreamId(const std::string& streamId) {
  std::shared_ptr<VideoTimerTask::State> stopped;
  {
    std::lock_guard<std::mutex> lock(tasksMutex_);
    auto task = timerTasks.find(streamId);
    if (task != timerTasks.end()) {
      stopped = task->second.state();
      stopped->requestStop();
      timerTasks.erase(task);
    }
  }
  if (stopped) {
    logLine("Convoke: TimerTask: Stopping TimerTask for streamID " + streamId);
    stopped->awaitNoCallback();
  } else {
    logLine("Convoke: stopTaskForStreamId:  Could not find timer task for streamId: " + streamId);
  }
}

void VideoEvents::stopTasks() {
  std::vector<std::shared_ptr<VideoTimerTask::State>> stopped;
  {
    std::lock_guard<std::mutex> lock(tasksMutex_);
    stopGeneration_.fetch_add(1);
    for (auto& entry : timerTasks) {
      entry.second.state()->requestStop();
      stopped.push_back(entry.second.state());
    }
    timerTasks.clear();
  }
  for (const auto& state : stopped) {
    logLine("Convoke: TimerTask: Stopping TimerTask for streamID " + state->streamId);
  }
  for (const auto& state : stopped) state->awaitNoCallback();
}

void VideoEvents::pauseTask(const std::string& streamId) {
  std::shared_ptr<VideoTimerTask::State> paused;
  {
    std::lock_guard<std::mutex> lock(tasksMutex_);
    auto task = timerTasks.find(streamId);
    if (task != timerTasks.end()) {
      paused = task->second.state();
      paused->requestStop();
    }
  }
  if (!paused) return;
  logLine("Convoke: TimerTask: Stopping TimerTask for streamID " + streamId);
  paused->awaitNoCallback();
}

void VideoEvents::resumeTask(const std::string& streamId) {
  std::lock_guard<std::mutex> lock(tasksMutex_);
  auto task = timerTasks.find(streamId);
  if (task != timerTasks.end()) task->second.run();
}

bool VideoEvents::isRegisteredOrAbsent(const std::string& streamId,
                                       const VideoTimerTask::State* state) const {
  std::lock_guard<std::mutex> lock(tasksMutex_);
  auto task = timerTasks.find(streamId);
  return task == timerTasks.end() || task->second.state().get() == state;
}

std::size_t VideoEvents::taskCount() const {
  std::lock_guard<std::mutex> lock(tasksMutex_);
  return timerTasks.size();
}

bool VideoEvents::registeredPixelBuffer(const std::string& streamId, uint64_t& out) const {
  std::lock_guard<std::mutex> lock(tasksMutex_);
  auto found = timerTasks.find(streamId);
  if (found == timerTasks.end()) return false;
  out = found->second.state()->pixelBuffer;
  return true;
}

}  // namespace Telmora

extern "C" void videoCallback(void*, const char* xml) {
  Telmora::routeVideoEvent(xml, Telmora::EventPath::kFastWhenCanonical);
}
