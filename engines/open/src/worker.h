// The meeting's control thread: runs posted jobs one at a time, in order, and a periodic tick.
#ifndef KTOPEN_WORKER_H
#define KTOPEN_WORKER_H

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace ktopen {

class Worker {
 public:
  Worker() = default;
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;
  ~Worker() { Stop(); }

  // Starts the thread (when not running); `tick` runs every `period` between jobs.
  void Start(std::function<void()> tick, std::chrono::milliseconds period);
  // Finishes the queued jobs and ends the thread.
  void Stop();
  void Post(std::function<void()> job);
  // Runs `job` on the thread and waits for it (runs it at once when called on the thread).
  // False when it did not finish within `limit` (it still runs later).
  bool Call(std::function<void()> job, std::chrono::milliseconds limit);
  bool OnThread() const { return std::this_thread::get_id() == id_; }

 private:
  void Run();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> jobs_;
  std::function<void()> tick_;
  std::chrono::milliseconds period_{100};
  bool stop_ = false;
  std::thread thread_;
  std::thread::id id_;
};

}  // namespace ktopen

#endif  // KTOPEN_WORKER_H
