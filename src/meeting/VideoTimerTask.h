// Telmora::VideoTimerTask polls the video engine about every 33 ms for a new frame of one stream
// and reports each ready frame to the delegate's videoFrameReady, on a detached thread of its own.
//
// Lifecycle: created (not running) -> run() -> polling -> stop request or deregistration ->
// stopping (logs "Stopped for streamID", waits up to 2 s) -> thread ended. A task never has more
// than one thread: run() on a task whose thread still polls, or still waits after a stop, re-arms
// that thread (which then polls again without a new "Stopped" line); only run() on a task whose
// thread has ended starts a new one. So pause/resume pairs and re-announced buffers never multiply
// the polling.
//
// Frame barrier: State::stopAndWait() sets the stop flag and, unless it is called on the task's own
// thread, waits until a frame callback in progress has returned; a callback never begins after the
// flag is set (the flag is checked under the state's mutex right before the call).
//
// Thread safety: the state a worker thread uses is held by a shared State owned jointly by the
// task object and its thread, so the task may be erased from its map right after a stop while the
// thread is still sleeping. State is the truth for everything a thread does: the public
// pixelBuffer and streamId fields are copies of the same values kept for readers of the task
// object. No lock of the task is held while the engine or the delegate runs.
//
// Thread ownership: the public `thread` is never joinable. Every worker thread belongs to one
// owner inside the library instead of being detached: a thread that has ended is joined by the
// next run() that starts a thread, or by drainStoppedThreads(). At process exit the owner stops
// every task, ends the stop waits at once and joins the threads (waiting at most about 2 s for a
// frame callback in progress), so no timer thread runs library code while the process ends.
// exitMeeting and the stops never wait for a thread's 2-second stop wait.
#ifndef CONVOKE_MEETING_VIDEOTIMERTASK_H
#define CONVOKE_MEETING_VIDEOTIMERTASK_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace Telmora {

class Convoke;
class VideoEvents;

class VideoTimerTask {
 public:
  struct State {
    State(std::string streamId, uint64_t pixelBuffer, bool stopped)
        : streamId(std::move(streamId)), pixelBuffer(pixelBuffer), stopped(stopped) {}
    const std::string streamId;
    const uint64_t pixelBuffer;
    // Read without the mutex on every pass; written under it, so that a frame callback cannot
    // begin after a stop has been observed by stopAndWait.
    std::atomic<bool> stopped;

    // Sets the stop flag (no waiting).
    void requestStop();
    // Sets the stop flag and waits until no frame callback of this task runs, unless the caller is
    // the task's own thread inside its callback. Never call it with a lock held that a frame
    // callback may need.
    void stopAndWait();
    // Waits for a frame callback in progress on another thread to return.
    void awaitNoCallback();
    // When the task is stopped (after stopping it, with `stopFirst`), ends its thread's stop wait
    // now: the thread ends instead of waiting to be re-armed. A later run() clears it.
    void cutStopWait(bool stopFirst);

    // Set by cutStopWait, cleared by run(); written under the mutex.
    std::atomic<bool> cutWait{false};

   private:
    friend class VideoTimerTask;
    std::mutex mutex;
    std::condition_variable changed;
    bool threadAlive = false;        // guarded by mutex: a thread polls or waits after a stop
    bool inCallback = false;         // guarded by mutex: the delegate's videoFrameReady is running
    std::thread::id callbackThread;  // guarded by mutex: the thread running that callback
  };

  VideoTimerTask();
  VideoTimerTask(const std::string& streamId, uint64_t pixelBuffer);
  // Copies the handle, the stream id and the stop flag into a new task of its own (new identity,
  // no thread).
  VideoTimerTask(const VideoTimerTask& other);
  VideoTimerTask& operator=(const VideoTimerTask&) = delete;

  // Clears the stop flag; starts a detached worker thread unless the task's thread is still alive
  // (polling or in its stop wait), which then simply goes on polling. Throws std::system_error when
  // a thread cannot be created.
  void run();
  // Logs and sets the stop flag; the worker ends at its next pass. VideoEvents stops its tasks
  // through their State under its map lock and logs after releasing it, so the library itself does
  // not call this; it is kept on purpose as the task's own stop for code that holds a task object
  // outside the map (tests, tools).
  void stop();

  // The identity the worker threads compare with the registered task of their stream.
  const std::shared_ptr<State>& state() const { return state_; }

  // Number of worker threads that have not ended yet (for tests and orderly shutdown).
  static int runningThreads();
  // Ends the stop wait of every stopped task's thread now and joins every thread that has ended;
  // threads of tasks that are not stopped go on polling. Returns when none of the stopped tasks'
  // threads is left, or after `limitMs` (a frame callback that does not return); returns the number
  // of worker threads still running. For tests, fuzz targets and orderly shutdown.
  static int drainStoppedThreads(int limitMs = 10000);

  uint64_t pixelBuffer;
  std::string streamId;
  Convoke* meeting;
  VideoEvents* videoEvents;
  std::thread thread;

 private:
  static void loop(std::shared_ptr<State> state, Convoke* meeting, VideoEvents* videoEvents);
  // Polls until stopped; returns true when it ended because the task is no longer the registered
  // one of its stream.
  static bool poll(const std::shared_ptr<State>& state, Convoke* meeting, VideoEvents* videoEvents);
  // Reports one frame unless a stop came first.
  static void reportFrame(State& state, Convoke* meeting);

  std::shared_ptr<State> state_;
};

}  // namespace Telmora

#endif  // CONVOKE_MEETING_VIDEOTIMERTASK_H
