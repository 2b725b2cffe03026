#include "worker.h"

#include <utility>

namespace ktopen {

void Worker::Start(std::function<void()> tick, std::chrono::milliseconds period) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (thread_.joinable()) return;
  tick_ = std::move(tick);
  period_ = period;
  stop_ = false;
  thread_ = std::thread(&Worker::Run, this);
  id_ = thread_.get_id();
}

void Worker::Stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!thread_.joinable()) return;
    stop_ = true;
    wake_.notify_all();
  }
  if (OnThread()) {
    thread_.detach();
  } else {
    thread_.join();
  }
  std::lock_guard<std::mutex> lock(mutex_);
  id_ = std::thread::id();
}

void Worker::Post(std::function<void()> job) {
  std::lock_guard<std::mutex> lock(mutex_);
  jobs_.push_back(std::move(job));
  wake_.notify_all();
}

bool Worker::Call(std::function<void()> job, std::chrono::milliseconds limit) {
  if (OnThread()) {
    job();
    return true;
  }
  struct Done {
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
  };
  auto done = std::make_shared<Done>();
  Post([job = std::move(job), done] {
    job();
    std::lock_guard<std::mutex> lock(done->mutex);
    done->done = true;
    done->cv.notify_all();
  });
  std::unique_lock<std::mutex> lock(done->mutex);
  return done->cv.wait_for(lock, limit, [&] { return done->done; });
}

void Worker::Run() {
  auto next_tick = std::chrono::steady_clock::now() + period_;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait_until(lock, next_tick, [this] { return stop_ || !jobs_.empty(); });
    if (!jobs_.empty()) {
      std::function<void()> job = std::move(jobs_.front());
      jobs_.pop_front();
      lock.unlock();
      job();
      lock.lock();
      continue;
    }
    if (stop_) break;
    if (std::chrono::steady_clock::now() >= next_tick) {
      next_tick += period_;
      if (next_tick < std::chrono::steady_clock::now())
        next_tick = std::chrono::steady_clock::now() + period_;
      lock.unlock();
      if (tick_) tick_();
      lock.lock();
    }
  }
}

}  // namespace ktopen
