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

void VideoTimerTask::State::requestStop() {
  std::lock_guard<std::mutex> lock(mutex);
  stopped.store(true);
}

void VideoTimerTask::State::awaitNoCallback() {
  std::unique_lock<std::mutex> lock(mutex);
  // A stop from inside the task's own frame callback cannot wait for that callback.
  if (inCallback && callbackThread == std::this_thread::get_id()) return;
  changed.wait(lock, [this] { return !inCallback; });
}

void VideoTimerTask::State::stopAndWait() {
  requestStop();
  awaitNoCallback();
}

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
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->stopped.store(false);
  if (state_->threadAlive) {
    // The thread still polls or waits after a stop: re-arm it instead of starting another.
    state_->changed.notify_all();
    return;
  }
  gRunningThreads.fetch_add(1);
  try {
    thread = std::thread(&VideoTimerTask::loop, state_, meeting, videoEvents);
  } catch (...) {
    gRunningThreads.fetch_sub(1);
    throw;
  }
  state_->threadAlive = true;
  thread.detach();
}

void VideoTimerTask::stop() {
  logLine("Convoke: TimerTask: Stopping TimerTask for streamID " + streamId);
  state_->requestStop();
}

void VideoTimerTask::loop(std::shared_ptr<State> state, Convoke* meeting,
                          VideoEvents* videoEvents) {
  try {
    for (;;) {
      // A task that is no longer the registered one stops as if it had been told to.
      if (poll(state, meeting, videoEvents)) state->requestStop();
      logLine("Convoke: TimerTask: Stopped for streamID " + state->streamId);
      std::unique_lock<std::mutex> lock(state->mutex);
      // Wait out the stop; a run() in the meantime re-arms this thread.
      if (!state->changed.wait_for(lock, kStopWait, [&] { return !state->stopped.load(); })) {
        break;
      }
    }
  } catch (...) {
    // Nothing may escape a detached thread; the task simply ends.
  }
  {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->threadAlive = false;
    state->inCallback = false;
  }
  state->changed.notify_all();
  gRunningThreads.fetch_sub(1);
}

bool VideoTimerTask::poll(const std::shared_ptr<State>& state, Convoke* meeting,
                          VideoEvents* videoEvents) {
  const char* const id = state->streamId.c_str();
  while (!state->stopped.load(std::memory_order_relaxed)) {
    if (VideoFrameReady(id) != 0) {
      if (!videoEvents->isRegisteredOrAbsent(state->streamId, state.get())) {
        std::ostringstream line;
        line << "Convoke: TimerTask: " << static_cast<const void*>(state.get())
             << " is no longer the registered timer for streamID " << state->streamId;
        logLine(line.str());
        return true;
      }
      reportFrame(*state, meeting);
    }
    // 33 ms after the work of this pass.
    std::this_thread::sleep_until(std::chrono::steady_clock::now() + kPollPeriod);
  }
  return false;
}

void VideoTimerTask::reportFrame(State& state, Convoke* meeting) {
  MeetingDelegate* delegate = meeting->delegate.load();
  if (delegate == nullptr) return;
  {
    // A stop that arrived during the engine call takes effect before the host hears of the frame.
    std::lock_guard<std::mutex> lock(state.mutex);
    if (state.stopped.load()) return;
    state.inCallback = true;
    state.callbackThread = std::this_thread::get_id();
  }
  struct CallbackEnd {
    State& state;
    ~CallbackEnd() {
      {
        std::lock_guard<std::mutex> lock(state.mutex);
        state.inCallback = false;
      }
      state.changed.notify_all();
    }
  } end{state};
  delegate->videoFrameReady(state.streamId, reinterpret_cast<void*>(state.pixelBuffer));
}

}  // namespace Telmora
