// Event objects of the base library's reactor.
//
// An event can say whether it is signalled now (Poll), how long until it may become signalled
// (MinEventTime, MaxEventTime, in milliseconds from now) and which descriptors, if any, wake it
// (GetDescriptors). Events can be waited on without a dispatcher (Event::Wait) or registered with a
// Dispatch (kt/Dispatch.h), which calls their callbacks. All times are unsigned 32-bit counts of
// milliseconds; Event::Infinite means never, or no limit.
//
// Thread safety: none, by contract. An event and the dispatcher it is registered with belong to
// one thread. The one exception is AsyncEvent::Signal on an unregistered event: it may be called
// from another thread to wake a thread that waits on the event with Event::Wait.
//
// Descriptors of any value are supported, including those at or above FD_SETSIZE.
#ifndef KT_EVENT_H
#define KT_EVENT_H

#include <atomic>
#include <string>

#include "kt/Timer.h"
#include "convoke/export.h"

class Callback;
class Dispatch;

// The abstract event. A new event is unregistered: no dispatcher, no callback. Registration with a
// Dispatch sets both; destroying a registered event unregisters it.
// Thread safety: none; an event belongs to one thread (see above for AsyncEvent::Signal).
class CONVOKE_API Event {
 public:
  // "Never" or "no limit", wherever a time is expected or returned.
  static constexpr unsigned Infinite = 4294967295u;

  Event();
  // Unregisters the event from its dispatcher, if any.
  virtual ~Event();

  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  // The kind's name: "Event" here.
  virtual std::string Type() const;
  // True when the event is signalled now.
  virtual bool Poll() const = 0;
  // Hands the event to its dispatcher's DispatchEvent (which calls the callback); nothing when the
  // event is not registered.
  virtual void DispatchEvent();
  // The earliest the event may become signalled, in ms from now: 0 here.
  virtual unsigned MinEventTime() const;
  // The latest the event may become signalled, in ms from now: Infinite here.
  virtual unsigned MaxEventTime() const;
  // A kind woken by descriptors stores them (-1 for "none") and returns true. Here: false, and the
  // arguments are left untouched.
  virtual bool GetDescriptors(int& read, int& write, int& except) const;

  // User data, never interpreted by the library.
  void SetData(void* data) { data_ = data; }
  void* Data() const { return data_; }

  // Poll().
  operator bool() const { return Poll(); }
  bool operator!() const { return !Poll(); }
  // "<address>, <MinEventTime>, <MaxEventTime>, <Type>".
  operator std::string() const;

  // Tells the dispatcher, if any, that the event's timing changed. Every kind calls this (or the
  // dispatcher directly) whenever its timing changes.
  void UpdateEvent();

  // Waits up to timeout ms (Infinite: without limit) for this event. A descriptor event waits once
  // for its descriptors; any other kind is polled, sleeping at least 10 ms between polls, so the
  // answer may come up to about 10 ms after the event was signalled or the time ran out. Returns
  // whether the event was found signalled; false on time-out, error or an interrupted sleep.
  bool Wait(unsigned timeout) const;

  // Waits up to timeout ms for any of count events (null entries are skipped) and returns how many
  // were found signalled in one round, writing them to signalled (when not null, from index 0, in
  // the order found: descriptor events first). Returns 0 on time-out, error or an interrupted
  // sleep. REQUIRES: signalled, when not null, has room for count entries.
  //
  // The descriptor sets are built once: a round that follows a wait which ended with nothing ready
  // watches no descriptors any more, only the polled events and the clock. Sleeps and descriptor
  // waits last at least 10 ms when anything is watched, even with a timeout of 0.
  static int Wait(int count, Event** events, Event** signalled, unsigned timeout);

  // The dispatcher the event is registered with; null when it is not registered.
  Dispatch* Owner() const { return dispatch_; }
  // The callback given at registration; null when unregistered.
  Callback* GetCallback() const { return callback_; }
  // Whether the dispatcher destroys the callback when the event is unregistered.
  bool OwnsCallback() const { return ownCallback_; }

 private:
  friend class Dispatch;

  Dispatch* dispatch_;
  Callback* callback_;
  bool ownCallback_;
  void* data_;
};

// An event signalled and reset by the user with Signal(). It stays signalled until Signal(false).
// Thread safety: Signal may be called from another thread only while the event is unregistered
// (to wake Event::Wait); everything else belongs to one thread.
class CONVOKE_API AsyncEvent : public Event {
 public:
  // Stored for the user; the library never acts on it.
  enum EventType { Default = 0 };

  explicit AsyncEvent(EventType type = Default);
  ~AsyncEvent() override;

  std::string Type() const override;  // "AsyncEvent"
  bool Poll() const override;         // the signalled flag
  void DispatchEvent() override;
  // Both 0 when signalled, else Infinite.
  unsigned MinEventTime() const override;
  unsigned MaxEventTime() const override;

  // Stores the flag; a change (only a change) is announced to the dispatcher.
  void Signal(bool state);

 protected:
  EventType type_;

 private:
  std::atomic<bool> signalled_;
};

// An event due a fixed interval after it was created or last reset; it stays due until Reset().
// A periodic Reset schedules the next due point one interval after the previous one, so periodic
// timers do not drift. Thread safety: none; one thread.
class CONVOKE_API TimerEvent : public Event {
 public:
  // interval: ms until due; 0 is due at once, Infinite never.
  explicit TimerEvent(unsigned interval);
  ~TimerEvent() override;

  std::string Type() const override;  // "TimerEvent"
  bool Poll() const override;         // Time() == 0
  // Both Time().
  unsigned MinEventTime() const override;
  unsigned MaxEventTime() const override;

  // Changes the interval without restarting the timer.
  void SetInterval(unsigned ms);
  unsigned Interval() const { return interval_; }
  // Milliseconds left until due: 0 when due, Infinite for an Infinite interval.
  unsigned Time() const;
  // periodic (and a finite interval): the next due point is one interval after the previous one.
  // Otherwise the timer restarts and is due one interval from now.
  void Reset(bool periodic = false);

 private:
  Timer timer_;
  unsigned interval_;
  // Sum of the intervals of the periodic resets since the timer was last restarted.
  unsigned base_;
};

// An event woken by one descriptor. A handle of NullHandle (-1) never polls true.
// Thread safety: none; one thread. The same holds for the three kinds below.
class CONVOKE_API SocketEvent : public Event {
 public:
  static constexpr int NullHandle = -1;

  explicit SocketEvent(int handle);
  ~SocketEvent() override;

  int GetHandle() const { return handle_; }

 protected:
  int handle_;
};

// Signalled while the descriptor is readable.
class CONVOKE_API SocketReadEvent : public SocketEvent {
 public:
  explicit SocketReadEvent(int handle);
  ~SocketReadEvent() override;

  std::string Type() const override;  // "SocketReadEvent"
  bool Poll() const override;
  unsigned MinEventTime() const override;  // 0
  // read = handle, write = except = -1; true.
  bool GetDescriptors(int& read, int& write, int& except) const override;
};

// Signalled while the descriptor is writable.
class CONVOKE_API SocketWriteEvent : public SocketEvent {
 public:
  explicit SocketWriteEvent(int handle);
  ~SocketWriteEvent() override;

  std::string Type() const override;  // "SocketWriteEvent"
  bool Poll() const override;
  // write = handle, read = except = -1; true.
  bool GetDescriptors(int& read, int& write, int& except) const override;
};

// Signalled while the descriptor has an exceptional condition (out-of-band data).
class CONVOKE_API SocketExceptEvent : public SocketEvent {
 public:
  explicit SocketExceptEvent(int handle);
  ~SocketExceptEvent() override;

  std::string Type() const override;  // "SocketExceptEvent"
  bool Poll() const override;
  // except = handle, read = write = -1; true.
  bool GetDescriptors(int& read, int& write, int& except) const override;
};

#endif  // KT_EVENT_H
