#include "meeting/VideoTimerTask.h"

#include <chrono>
#include <sstream>

#include "meeting/Convoke.h"
#include "meeting/EngineApi.h"
#include "meeting/Logging.h"
#include "meeting/VideoEvents.h"

namespace Telmora {

namespace {

constexpr std::chrono::milliseconds kPollPeriod(33);
constexpr std::chrono::seconds kStopWait(2);

std::atomic<int> gRunningThreads{0};

}  // namespace

VideoTimerTask::VideoTimerTask() : VideoTimerTask(std::string(), 0) {}

VideoTimerTask::VideoTimerTask(const std::string& id, uint64_t buffer)
    : pixelBuffer(buffer),
      streamId(id),
      meeting(Convoke::sharedInstance()),
      videoEvents(VideoEvents::sharedInstance()),
      state_(std::make_shared<State>(id, buffer, false)) {}

VideoTimerTask::VideoTimerTask(const VideoTimerTask& other)
    : pixelBuffer(other.pixelBuffer),
      streamId(other.streamId),
      meeting(Convoke::sharedInstance()),
      videoEvents(VideoEvents::sharedInstance()),
      state_(std::make_shared<State>(other.streamId, other.pixelBuffer,
                                     other.state_->stopped.load())) {}

int VideoTimerTask::runningThreads() { return gRunningThreads.load(); }

void VideoTimerTask::run() {
  state_->stopped.store(false);
  gRunningThreads.fetch_add(1);
  try {
    thread = std::thread(&VideoTimerTask::loop, state_, meeting, videoEvents);
  } catch (...) {
    gRunningThreads.fetch_sub(1);
    throw;
  }
  thread.detach();
}

void VideoTimerTask::stop() {
  logLine("Convoke: TimerTask: Stopping TimerTask for streamID " + streamId);
  state_->stopped.store(true);
}

void VideoTimerTask::loop(std::shared_ptr<State> state, Convoke* meeting,
                          VideoEvents* videoEvents) {
  try {
    poll(*state, state, meeting, videoEvents);
  } catch (...) {
    // Nothing may escape a detached thread; the task simply ends.
  }
  gRunningThreads.fetch_sub(1);
}

void VideoTimerTask::poll(State& taskState, const std::shared_ptr<State>& state, Convoke* meeting,
                          VideoEvents* videoEvents) {
  const std::string& id = taskState.streamId;
  while (!state->stopped.load()) {
    if (VideoFrameReady(id.c_str()) != 0) {
      std::shared_ptr<State> registered = videoEvents->registeredState(id);
      if (registered && registered != state) {
        std::ostringstream line;
        line << "Convoke: TimerTask: " << static_cast<const void*>(state.get())
             << " is no longer the registered timer for streamID " << id;
        logLine(line.str());
        break;
      }
      MeetingDelegate* delegate = meeting->delegate.load();
      // A stop that arrived during the engine call takes effect before the host hears of the frame.
      if (delegate != nullptr && !state->stopped.load()) {
        delegate->videoFrameReady(id, reinterpret_cast<void*>(state->pixelBuffer));
      }
    }
    std::this_thread::sleep_until(std::chrono::steady_clock::now() + kPollPeriod);
  }
  logLine("Convoke: TimerTask: Stopped for streamID " + id);
  std::this_thread::sleep_for(kStopWait);
}

}  // namespace Telmora
