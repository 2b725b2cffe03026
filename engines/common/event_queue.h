// One engine's event thread, for every engine family: a FIFO of event documents and trace lines,
// delivered one at a time on a worker thread through the callbacks the product registered. The
// first delivery arms the exit guard (exit_guard.h).
#ifndef KTENGINE_EVENT_QUEUE_H
#define KTENGINE_EVENT_QUEUE_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "ktengine/ktengine.h"

namespace ktengine {

// Thread safety: every member may be called from any thread. No lock of the queue is held while a
// callback runs, so a callback may call back into the queue (or anything else) freely.
//
// Worker lifecycle: idle (no thread) -> Push starts a thread -> running -> Stop (or StopWhenIdle)
// asks it to end once the queue is empty -> the thread clears `running_` under the lock as its last
// action -> whoever next holds the lock may join it (Push before starting a new one, Stop, Exit).
class EventQueue {
 public:
  // `tag` groups items so that a part of the queue can be discarded (0: never discarded by tag).
  EventQueue() = default;
  EventQueue(const EventQueue&) = delete;
  EventQueue& operator=(const EventQueue&) = delete;

  void SetCallback(EngineEventCallback callback) { callback_.store(callback); }
  EngineEventCallback callback() const { return callback_.load(); }
  void SetTraceCallback(EngineTraceCallback callback) { trace_callback_.store(callback); }
  EngineTraceCallback trace_callback() const { return trace_callback_.load(); }

  // Queues an event document; returns its sequence number.
  uint64_t PushEvent(std::string xml, uint64_t tag = 0);
  // Queues a trace line for the trace callback.
  uint64_t PushTrace(unsigned int level, std::string text, uint64_t tag = 0);

  // Waits until the item `seq` and everything before it has been delivered or discarded. Returns at
  // once when called on the worker thread itself (the wait could never end).
  void WaitFor(uint64_t seq);
  // WaitFor the last item queued so far.
  void Flush();
  // Whether WaitFor(seq) would return at once: the item and everything before it are done.
  bool Delivered(uint64_t seq) const;

  // Drops every queued item (tag 0 means all, else only items with that tag). With `wait`, then
  // waits until no callback is running, unless called on the worker thread.
  void Discard(uint64_t tag = 0, bool wait = true);

  // Lets the worker end once it has delivered what is queued, and joins it (unless called on the
  // worker thread itself, which then ends after its callback returns).
  void Stop();
  // Lets the worker end once the queue is empty, without waiting for it.
  void StopWhenIdle();
  // For process exit: discards the queue, waits at most `limit` for a running callback, then joins
  // the worker (or detaches it when it does not finish in time).
  void Exit(std::chrono::milliseconds limit);

  bool running() const;
  bool OnWorkerThread() const;

 private:
  struct Item {
    uint64_t seq;
    uint64_t tag;
    bool trace;
    unsigned int level;
    std::string text;
  };

  uint64_t Push(Item item);
  void Run();
  // Everything up to and including the returned sequence number has been delivered or discarded.
  uint64_t CompletedLocked() const;
  void JoinFinishedLocked();

  std::atomic<EngineEventCallback> callback_{nullptr};
  std::atomic<EngineTraceCallback> trace_callback_{nullptr};

  mutable std::mutex mutex_;
  std::condition_variable wake_;  // worker: an item arrived or a stop was asked
  std::condition_variable done_;  // waiters: an item completed, was discarded, or the worker ended
  std::deque<Item> items_;        // GUARDED_BY(mutex_)
  uint64_t next_seq_ = 1;         // GUARDED_BY(mutex_)
  uint64_t in_flight_ = 0;        // GUARDED_BY(mutex_); sequence being delivered, 0 when none
  bool stop_ = false;             // GUARDED_BY(mutex_)
  bool running_ = false;          // GUARDED_BY(mutex_)
  std::thread thread_;            // GUARDED_BY(mutex_)
  std::thread::id worker_id_;     // GUARDED_BY(mutex_)
};

}  // namespace ktengine

#endif  // KTENGINE_EVENT_QUEUE_H
