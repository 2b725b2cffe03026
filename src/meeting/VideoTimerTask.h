// Telmora::VideoTimerTask polls the video engine about every 33 ms for a new frame of one stream
// and reports each ready frame to the delegate's videoFrameReady, on a detached thread of its own.
//
// Lifecycle: created (not running) -> run() -> polling -> stop() or deregistration -> stopping
// (logs "Stopped for streamID", waits 2 s) -> thread ended. run() on a stopped task starts a new
// thread on it (resume).
//
// Thread safety: the state a worker thread uses (stop flag, stream id, pixel buffer) is held by a
// shared State owned jointly by the task object and every thread started on it, so the task may be
// erased from its map right after stop() while the thread is still sleeping. The stop flag is
// atomic; stop() never waits for the thread.
#ifndef CONVOKE_MEETING_VIDEOTIMERTASK_H
#define CONVOKE_MEETING_VIDEOTIMERTASK_H

#include <atomic>
#include <cstdint>
#include <memory>
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
    std::atomic<bool> stopped;
  };

  VideoTimerTask();
  VideoTimerTask(const std::string& streamId, uint64_t pixelBuffer);
  // Copies the handle, the stream id and the stop flag into a new task of its own (new identity,
  // no thread).
  VideoTimerTask(const VideoTimerTask& other);
  VideoTimerTask& operator=(const VideoTimerTask&) = delete;

  // Clears the stop flag and starts a detached worker thread on this task. Throws std::system_error
  // when the thread cannot be created.
  void run();
  // Logs and sets the stop flag; the worker ends at its next pass.
  void stop();

  // The identity the worker threads compare with the registered task of their stream.
  const std::shared_ptr<State>& state() const { return state_; }

  // Number of worker threads that have not ended yet (for tests and orderly shutdown).
  static int runningThreads();

  uint64_t pixelBuffer;
  std::string streamId;
  Convoke* meeting;
  VideoEvents* videoEvents;
  std::thread thread;

 private:
  static void loop(std::shared_ptr<State> state, Convoke* meeting, VideoEvents* videoEvents);
  static void poll(State& taskState, const std::shared_ptr<State>& state, Convoke* meeting,
                   VideoEvents* videoEvents);

  std::shared_ptr<State> state_;
};

}  // namespace Telmora

#endif  // CONVOKE_MEETING_VIDEOTIMERTASK_H
