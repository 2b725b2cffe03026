#include "event_queue.h"

#include <utility>

#include "exit_guard.h"

namespace ktengine {

uint64_t EventQueue::PushEvent(std::string xml, uint64_t tag) {
  return Push(Item{0, tag, false, 0, std::move(xml)});
}

uint64_t EventQueue::PushTrace(unsigned int level, std::string text, uint64_t tag) {
  return Push(Item{0, tag, true, level, std::move(text)});
}

uint64_t EventQueue::Push(Item item) {
  std::lock_guard<std::mutex> lock(mutex_);
  item.seq = next_seq_++;
  const uint64_t seq = item.seq;
  items_.push_back(std::move(item));
  stop_ = false;  // a worker on its way out keeps going
  if (!running_) {
    JoinFinishedLocked();
    running_ = true;
    thread_ = std::thread(&EventQueue::Run, this);
    worker_id_ = thread_.get_id();
  }
  wake_.notify_one();
  return seq;
}

void EventQueue::JoinFinishedLocked() {
  // The worker's last action under the lock was clearing running_; it needs the lock no more, so
  // joining it here cannot deadlock.
  if (!running_ && thread_.joinable()) {
    if (thread_.get_id() == std::this_thread::get_id()) {
      thread_.detach();
    } else {
      thread_.join();
    }
  }
}

void EventQueue::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return !items_.empty() || stop_; });
    if (items_.empty()) break;
    Item item = std::move(items_.front());
    items_.pop_front();
    in_flight_ = item.seq;
    lock.unlock();
    if (item.trace) {
      if (EngineTraceCallback trace = trace_callback_.load()) trace(item.level, item.text.c_str());
    } else if (EngineEventCallback callback = callback_.load()) {
      callback(nullptr, item.text.c_str());
      ArmExitGuard();
    }
    lock.lock();
    in_flight_ = 0;
    done_.notify_all();
  }
  running_ = false;
  done_.notify_all();
}

uint64_t EventQueue::CompletedLocked() const {
  if (in_flight_ != 0) return in_flight_ - 1;
  if (!items_.empty()) return items_.front().seq - 1;
  return next_seq_ - 1;
}

void EventQueue::WaitFor(uint64_t seq) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (running_ && std::this_thread::get_id() == worker_id_) return;
  done_.wait(lock, [&] { return CompletedLocked() >= seq || (!running_ && items_.empty()); });
}

bool EventQueue::Delivered(uint64_t seq) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return CompletedLocked() >= seq || (!running_ && items_.empty());
}

void EventQueue::Flush() {
  uint64_t last;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    last = next_seq_ - 1;
  }
  WaitFor(last);
}

void EventQueue::Discard(uint64_t tag, bool wait) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (tag == 0) {
    items_.clear();
  } else {
    for (auto it = items_.begin(); it != items_.end();) {
      it = it->tag == tag ? items_.erase(it) : it + 1;
    }
  }
  done_.notify_all();
  if (!wait || std::this_thread::get_id() == worker_id_) return;
  done_.wait(lock, [this] { return in_flight_ == 0; });
}

void EventQueue::Stop() {
  std::unique_lock<std::mutex> lock(mutex_);
  if (running_ && std::this_thread::get_id() == worker_id_) {
    stop_ = true;
    wake_.notify_one();
    return;
  }
  // A Push racing with us may re-arm the worker; ask again each time we wake.
  done_.wait(lock, [this] {
    if (running_) {
      stop_ = true;
      wake_.notify_one();
    }
    return !running_;
  });
  JoinFinishedLocked();
}

void EventQueue::StopWhenIdle() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!running_) return;
  stop_ = true;
  wake_.notify_one();
}

void EventQueue::Exit(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex_);
  items_.clear();
  if (!running_) {
    JoinFinishedLocked();
    return;
  }
  stop_ = true;
  wake_.notify_one();
  if (std::this_thread::get_id() == worker_id_ ||
      !done_.wait_for(lock, limit, [this] { return !running_; })) {
    // The worker is stuck in a callback (or is us): leave it to the end of the process.
    if (thread_.joinable()) thread_.detach();
    return;
  }
  JoinFinishedLocked();
}

bool EventQueue::running() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return running_;
}

bool EventQueue::OnWorkerThread() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return running_ && std::this_thread::get_id() == worker_id_;
}

}  // namespace ktengine
