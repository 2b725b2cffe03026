#include "meeting/VideoTimerTask.h"

#include <chrono>
#include <map>
#include <sstream>
#include <vector>

#include "meeting/Convoke.h"
#include "meeting/EngineApi.h"
#include "meeting/Logging.h"
#include "meeting/VideoEvents.h"

namespace Telmora {

namespace {

constexpr std::chrono::milliseconds kPollPeriod(33);
constexpr std::chrono::seconds kStopWait(2);

std::atomic<int> gRunningThreads{0};

using StatePtr = std::shared_ptr<VideoTimerTask::State>;

// Owns the worker threads: every thread that has not been joined is either live (in `live_`, with
// the state it works on) or ended (in `ended_`, waiting for its join). A thread moves itself from
// the first to the second as its very last step, so joining an ended thread never waits for work.
// Thread-safe; mutex_ is taken after a State's mutex, never before it.
class ThreadOwner {
 public:
  // Created on the first thread start, after every static of the library, so it is destroyed
  // before them: the threads it stops at exit still find the delegate and the session intact.
  static ThreadOwner& instance() {
    static ThreadOwner owner;
    return owner;
  }

  // Starts a worker thread for `state`; joins the threads that have ended meanwhile.
  template <class Body>
  void start(const StatePtr& state, Body body) {
    std::vector<std::thread> ended;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      std::thread thread(std::move(body));
      const std::thread::id id = thread.get_id();
      if (closed_) {
        thread.detach();  // the process is ending: nothing is left to join it
      } else {
        live_.emplace(id, Live{std::move(thread), state});
      }
      ended.swap(ended_);
    }
    joinAll(ended);
  }

  // The calling worker thread's last step.
  void ended() {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = live_.find(std::this_thread::get_id());
    if (it == live_.end()) return;  // started while the process ended: detached
    ended_.push_back(std::move(it->second.thread));
    live_.erase(it);
    changed_.notify_all();
  }

  // Cuts the stop wait of the stopped tasks' threads (every thread's, with stopAll), waits until
  // none of them is left, then joins every ended thread.
  void drain(bool stopAll, std::chrono::milliseconds limit) {
    std::vector<StatePtr> states;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      for (auto& entry : live_) states.push_back(entry.second.state);
    }
    for (const StatePtr& state : states) state->cutStopWait(stopAll);
    std::vector<std::thread> ended;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      changed_.wait_for(lock, limit, [this] { return !anyCutThreadLive(); });
      ended.swap(ended_);
    }
    joinAll(ended);
  }

 private:
  struct Live {
    std::thread thread;
    StatePtr state;
  };

  ThreadOwner() = default;
  // At exit every task stops and its thread ends at once; a thread that is still inside a frame
  // callback after the bound (or is the one running exit) is left to the process's end.
  ~ThreadOwner() {
    drain(true, kStopWait);
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    for (auto& entry : live_) entry.second.thread.detach();
    live_.clear();
  }

  // REQUIRES: mutex_ held. A thread whose wait was cut and that has neither ended nor been
  // re-armed; the calling thread itself never counts (exit may run on a worker thread).
  bool anyCutThreadLive() const {
    for (const auto& entry : live_) {
      if (entry.first == std::this_thread::get_id()) continue;
      const State& state = *entry.second.state;
      if (state.cutWait.load() && state.stopped.load()) return true;
    }
    return false;
  }

  static void joinAll(std::vector<std::thread>& threads) {
    for (std::thread& thread : threads) thread.join();
  }

  using State = VideoTimerTask::State;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::thread::id, Live> live_;  // guarded by mutex_
  std::vector<std::thread> ended_;        // guarded by mutex_
  bool closed_ = false;                   // guarded by mutex_
};

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

void VideoTimerTask::State::cutStopWait(bool stopFirst) {
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (stopFirst) stopped.store(true);
    if (stopped.load()) cutWait.store(true);
  }
  changed.notify_all();
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

int VideoTimerTask::drainStoppedThreads(int limitMs) {
  ThreadOwner::instance().drain(false, std::chrono::milliseconds(limitMs));
  return gRunningThreads.load();
}

void VideoTimerTask::run() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->stopped.store(false);
  state_->cutWait.store(false);
  if (state_->threadAlive) {
    // The thread still polls or waits after a stop: re-arm it instead of starting another.
    state_->changed.notify_all();
    return;
  }
  gRunningThreads.fetch_add(1);
  try {
    ThreadOwner::instance().start(state_,
                                  [state = state_, meeting = meeting, videoEvents = videoEvents] {
                                    loop(state, meeting, videoEvents);
                                    ThreadOwner::instance().ended();
                                  });
  } catch (...) {
    gRunningThreads.fetch_sub(1);
    throw;
  }
  state_->threadAlive = true;
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
      // Wait out the stop; a run() in the meantime re-arms this thread, a drain ends the wait.
      state->changed.wait_for(lock, kStopWait,
                              [&] { return !state->stopped.load() || state->cutWait.load(); });
      if (state->stopped.load()) break;
    }
  } catch (...) {
    // Nothing may escape a worker thread; the task simply ends.
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
