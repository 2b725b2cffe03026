// Dispatch: the base library's reactor. Register Event objects with a Callback, then call Wait: the
// dispatcher sleeps in poll() on the descriptors of descriptor events and on the nearest due time
// of timed events, and calls each signalled event's callback. A wait can be given exit events that
// end it as soon as one of them is signalled, without dispatching them.
//
// Scheduling: an event without descriptors is scheduled only when it knows exactly when it fires
// (MinEventTime() == MaxEventTime(), or MaxEventTime() == 0). An event that may fire at any time
// within a range (a plain Event subclass: 0 to Infinite) is registered but never polled or
// dispatched; one whose MinEventTime() is Infinite waits idle until its next UpdateEvent. Of an
// event's descriptors only one is watched: read, else write, else except.
//
// Callbacks run on the thread that calls Wait, one at a time. A callback may Stop() the wait,
// reset or update events, and register or unregister events; it must not unregister its own event
// when the dispatcher owns the callback (that destroys the callback while it runs).
//
// Thread safety: none. A dispatcher, its events and Stop() belong to one thread.
#ifndef KT_DISPATCH_H
#define KT_DISPATCH_H

#include <poll.h>

#include <list>
#include <new>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "kt/Event.h"
#include "kt/MemoryManager.h"
#include "convoke/export.h"

// The user's handler for dispatched events. A callback the dispatcher owns (registered with
// own = true) is destroyed through its virtual destructor and released with
// kt::MemoryManager::Free, so it must have been allocated with kt::MemoryManager::Allocate
// (kt::NewCallback below does both steps).
//
// Thread safety: OnEvent runs on the thread that calls Dispatch::Wait, one call at a time.
class CONVOKE_API Callback {
 public:
  virtual void OnEvent(Dispatch* dispatcher, Event* event) = 0;
  virtual ~Callback();
};

// The reactor described at the top of this file: registered events, the structures that schedule
// them, and the wait loop. Thread safety: none; one thread drives a dispatcher and its events.
class CONVOKE_API Dispatch {
 public:
  // The process-wide dispatcher, built when the library is loaded.
  static Dispatch* Instance();

  Dispatch();
  // Builds an empty dispatcher: registrations are not copied.
  Dispatch(const Dispatch&);
  Dispatch& operator=(const Dispatch&) = delete;
  // Unregisters every event (releasing owned callbacks).
  virtual ~Dispatch();

  // Registers event with callback; with own, the dispatcher destroys the callback when the event is
  // unregistered. Fails when the event is already registered here or with another dispatcher; the
  // failure still releases an owned callback, which the caller must not use afterwards.
  virtual bool RegisterEvent(Event* event, Callback* callback, bool own);
  // Returns false when event is not registered here.
  virtual bool UnregisterEvent(Event* event);
  virtual void UnregisterAllEvents();
  virtual bool IsEventRegistered(Event* event) const;
  virtual unsigned CountRegisteredEvents() const;
  // Does nothing.
  virtual void TraceInfo();

  // Dispatches registered events until one of the count exitEvents is signalled, the timeout (ms;
  // Event::Infinite: none) runs out, or a callback calls Stop(). Exit events need not be
  // registered and are never dispatched. Returns the number of exit events found signalled (written
  // to signalled when not null; REQUIRES: room for count entries), or 0 on time-out or Stop().
  virtual int Wait(int count, Event** exitEvents, Event** signalled, unsigned timeout);
  // Waits for one exit event, typically a ProcessEvent. SIGCHLD is blocked for the calling thread
  // and given an empty handler (so that ended children are kept for waitpid) and stays so
  // afterwards. Returns false on time-out, Stop() or when the signal setup fails.
  virtual bool Wait(Event* event, unsigned timeout);
  // Dispatches until the timeout runs out or Stop(); returns 0.
  virtual int Wait(unsigned timeout);
  // Ends the running Wait right after the dispatch under way. Has no effect outside a Wait.
  virtual void Stop();

  // Moves event to the structure that matches its current timing (add), or takes it out (!add).
  virtual void UpdateEvent(Event* event, bool add);
  // Calls the event's callback, if any.
  virtual void DispatchEvent(Event* event);
  // remaining, or less when a timed event is due sooner.
  virtual unsigned MaxSleepTime(unsigned remaining) const;
  // add: schedules the exit events like registered ones; !add: takes the unregistered ones out.
  virtual void UpdateExitEvents(int count, Event** events, bool add);

  // Does nothing.
  void Reset();

 private:
  void UnlinkTimed(Event* event);
  void InsertTimed(Event* event);

  bool stopped_;
  std::unordered_set<Event*> registered_;
  // Events without descriptors whose MinEventTime() was Infinite at their last update.
  std::unordered_set<Event*> idle_;
  // descriptorEvents_[i] is watched through pollDescriptors_[i].
  std::vector<Event*> descriptorEvents_;
  std::vector<pollfd> pollDescriptors_;
  // Sorted by MinEventTime() at insertion, nearest first; timedIndex_ finds an event's node.
  std::list<Event*> timed_;
  std::unordered_map<Event*, std::list<Event*>::iterator> timedIndex_;
};

namespace kt {

// The same-named operations of Dispatch::Instance().
CONVOKE_API int Wait(int count, Event** exitEvents, Event** signalled, unsigned timeout);
CONVOKE_API bool Wait(Event* event, unsigned timeout);
CONVOKE_API int Wait(unsigned timeout);
// Dispatch::Instance()->UnregisterEvent(event).
CONVOKE_API bool ResetCallback(Event* event);

// Builds a T (a Callback) in memory from kt::MemoryManager, ready to be registered with
// own = true. Returns null when the allocation fails.
template <typename T, typename... Args>
T* NewCallback(Args&&... args) {
  static_assert(std::is_base_of<Callback, T>::value, "T must be a Callback");
  void* memory = MemoryManager::Instance()->Allocate(sizeof(T), __FILE__, __LINE__);
  if (memory == nullptr) return nullptr;
  try {
    return new (memory) T(std::forward<Args>(args)...);
  } catch (...) {
    MemoryManager::Instance()->Free(memory, __FILE__, __LINE__);
    throw;
  }
}

}  // namespace kt

#endif  // KT_DISPATCH_H
