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
    CONVOKE_ROUTE(VideoEvents, "video_site_changed", &VideoEvents::processVideoSiteChanged),
    CONVOKE_ROUTE(VideoEvents, "video_stream_buffer_ready",
                  &VideoEvents::processVideoStreamBufferReady),
    CONVOKE_ROUTE(VideoEvents, "video_stream_size_changed",
                  &VideoEvents::processVideoStreamSizeChanged),
    CONVOKE_ROUTE(VideoEvents, "remote_layout_changed", &VideoEvents::processRemoteLayoutChanged),
    CONVOKE_ROUTE(VideoEvents, "video_stream_removed", &VideoEvents::processVideoStreamRemoved),
    // Recognised and dropped: condition updates of the video link are not reported.
    CONVOKE_ROUTE(VideoEvents, "video_update_conditions", nullptr),
};

void routeVideo(kt::XMLElement* event, const std::string& name) {
  if (!dispatchByName(kVideoRoutes, VideoEvents::sharedInstance(), event, name)) {
    logLine("Convoke: videoCallback: unhandled event name: " + name);
  }
}

}  // namespace

VideoEvents* VideoEvents::sharedInstance() {
  // Never destroyed: detached timer threads may look tasks up while the process exits.
  static VideoEvents* const instance = new VideoEvents();
  return instance;
}

VideoEvents::VideoEvents() : meeting(Convoke::sharedInstance()) {}

bool VideoEvents::processVideoSiteChanged(kt::XMLElement* event) {
  std::string id;
  const kt::XMLElement* stream = findStream(event, "processVideoSiteChanged", id);
  if (stream == nullptr) return false;
  const kt::XMLElement* email = stream->FindElementByName("email");
  const kt::XMLElement* active = stream->FindElementByName("active");
  const kt::XMLElement* name = stream->FindElementByName("name");
  const kt::XMLElement* local = stream->FindElementByName("local");
  const kt::XMLElement* layout = stream->FindElementByName("layout");
  const kt::XMLElement* width = stream->FindElementByName("width");
  const kt::XMLElement* height = stream->FindElementByName("height");
  if (email == nullptr || active == nullptr || name == nullptr || local == nullptr ||
      layout == nullptr || width == nullptr || height == nullptr) {
    logLine("Convoke: processVideoSiteChanged:  Missing required element");
    return false;
  }
  const kt::XMLElement* deviceName = stream->FindElementByName("device_name");
  const kt::XMLElement* codecName = stream->FindElementByName("codecName");
  const kt::XMLElement* site = stream->FindElementByName("site");

  std::string displayName = name->value;
  if (local->value == "true" && deviceName != nullptr) displayName = deviceName->value;
  const std::string siteText = site != nullptr ? site->value : std::string();
  const VideoInfo info(id, siteText, displayName,
                       codecName != nullptr ? codecName->value : std::string(), local->value,
                       active->value, layout->value, width->value, height->value);
  const Participant announced(email->value, siteText, info.local);

  bool added = false;
  bool isNew = false;
  ParticipantSnapshot entry = meeting->participants.update([&](Registry::Editor& registry) {
    // Local streams are filed under the local participant, whatever the event's e-mail says.
    const std::string key = info.local ? registry.localUuid() : email->value;
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

bool VideoEvents::processVideoStreamBufferReady(kt::XMLElement* event) {
  std::string id;
  const kt::XMLElement* stream = findStream(event, "processVideoStreamBufferReady", id);
  if (stream == nullptr) return false;
  const kt::XMLAttribute* pixelBuffer = stream->FindAttributeByName("pixel_buffer");
  if (pixelBuffer == nullptr) {
    logLine("Convoke: processVideoStreamBufferReady: could not find pixel_buffer ");
    return false;
  }
  // Text that is not a number throws here; the callback boundary catches it.
  const uint64_t handle = std::stoull(pixelBuffer->value, nullptr, 10);

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
  // A task already registered for the stream is kept, with its first handle, and started again.
  auto registered = timerTasks.emplace(id, task).first;
  registered->second.run();
  return true;
}

bool VideoEvents::processVideoStreamSizeChanged(kt::XMLElement* event) {
  std::string id;
  const kt::XMLElement* stream = findStream(event, "processVideoStreamSizeChanged", id);
  if (stream == nullptr) return false;
  const kt::XMLElement* window = stream->FindElementByName("window");
  if (window == nullptr) {
    logLine("Convoke: processVideoStreamSizeChanged: could not find window element");
    return false;
  }
  const kt::XMLElement* width = window->FindElementByName("width");
  const kt::XMLElement* height = window->FindElementByName("height");
  if (width == nullptr || height == nullptr) {
    logLine(
        "Convoke: processVideoStreamSizeChanged:  could not find either width or height element");
    return false;
  }
  const int32_t newWidth = elementNumber(width);
  const int32_t newHeight = elementNumber(height);
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
    logLine(
        "Convoke: processVideoStreamSizeChanged:  could not find Video Info record to update with "
        "new width/height");
  } else if (outcome == Outcome::kNoParticipant) {
    logLine(
        "Convoke: processVideoStreamSizeChanged:  could not find Participant record to update with "
        "new width/height");
  }
  return true;
}

bool VideoEvents::processRemoteLayoutChanged(kt::XMLElement* event) {
  std::string id;
  const kt::XMLElement* stream = findStream(event, "processRemoteLayoutChanged", id);
  if (stream == nullptr) return false;
  const kt::XMLElement* layout = stream->FindElementByName("layout");
  if (layout == nullptr) {
    logLine("Convoke: processRemoteLayoutChanged: could not find layout element");
    return false;
  }
  logLine("Convoke: processRemoteLayoutChanged: new layout constant is: " + layout->value);
  ParticipantSnapshot found = meeting->participants.snapshotByVideoStreamId(id);
  if (!found) return true;
  ParticipantSnapshot registered = meeting->participants.snapshotByKey(found->uuid);
  if (registered) {
    logLine("Convoke: processRemoteLayoutChanged: Found participant, now looking for videoINfo ");
    if (registered->videoInfos.count(id) != 0) {
      logLine("Convoke: processRemoteLayoutChanged: found videoInfo iterator");
      const uint8_t value = static_cast<uint8_t>(elementNumber(layout));
      meeting->participants.update([&](Registry::Editor& registry) {
        registry.modifyVideoInfo(found->uuid, id,
                                 [value](VideoInfo& video) { video.layout = value; });
      });
    }
  }
  MeetingDelegate* delegate = meeting->delegate.load();
  if (delegate == nullptr) return true;
  ParticipantSnapshot entry = meeting->participants.snapshotByKey(found->uuid);
  if (entry) delegate->participantVideoRemoteLayoutChanged(*entry, id);
  return true;
}

bool VideoEvents::processVideoStreamRemoved(kt::XMLElement* event) {
  std::string id;
  if (findStream(event, "processVideoStreamRemoved", id) == nullptr) return false;
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
    logLine("Convoke: processVideoStreamRemoved: calling participantVideoRemoved");
    delegate->participantVideoRemoved(*found, id);
  }
  meeting->participants.update(
      [&](Registry::Editor& registry) { registry.eraseVideoInfo(found->uuid, id); });
  return true;
}

bool VideoEvents::processVideoUpdateConditions(kt::XMLElement* event) {
  const kt::XMLElement* conditions = event->FindElementByName("conditions");
  if (conditions == nullptr) {
    logLine("Convoke: processVideoUpdateConditions: could not find conditions element");
    return false;
  }
  VideoCondition condition;
  condition.received = childNumber(conditions, "received");
  condition.sent = childNumber(conditions, "sent");
  condition.dataBytesDropped = childNumber(conditions, "data_bytes_dropped");
  condition.ctrlBytesDropped = childNumber(conditions, "ctrl_bytes_dropped");
  condition.cpuUsage = childNumber(conditions, "cpu_usage");
  condition.bars = childNumber(conditions, "bars");
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

}  // namespace Telmora

extern "C" void videoCallback(void*, const char* xml) {
  Telmora::routeEvent(xml, "Convoke: videoCallback: Could not find event data element",
                      "Convoke: videoCallback, can't find event name",
                      "Convoke: videoCallback: ", Telmora::routeVideo);
}
