#include "kt/Dispatch.h"

#include <signal.h>

#include <algorithm>
#include <climits>

#include "kt/MemoryManager.h"
#include "kt/Timer.h"
#include "kt/Utility.h"

namespace {

// The tracked memory manager's Free takes a source tag and line. Owned callbacks are released
// with a fixed tag and one fixed line per releasing operation: labels that name the operation,
// not lines of this file, so they do not move when this file changes.
constexpr char kCallbackSourceTag[] = "Event";
constexpr int kRefusedRegistrationLine = 1224;  // RegisterEvent refused the event
constexpr int kUnregistrationLine = 1249;       // UnregisterEvent

// Destroys a callback the dispatcher owns and returns its memory to the tracked memory manager.
void ReleaseCallback(Callback* callback, int line) {
  callback->~Callback();
  kt::MemoryManager::Instance()->Free(callback, kCallbackSourceTag, line);
}

// A timeout for poll(): Infinite waits without limit; other values beyond poll's range are cut
// to the longest finite wait (the loop simply goes round again).
int PollTimeout(unsigned ms) {
  if (ms == Event::Infinite) return -1;
  return ms > static_cast<unsigned>(INT_MAX) ? INT_MAX : static_cast<int>(ms);
}

// Ended children stay waitable while SIGCHLD has a handler; the handler itself has nothing to do.
void IgnoreSigChld(int, siginfo_t*, void*) {}

// The process-wide dispatcher, built when the library is loaded. The memory manager is made to
// exist first, so that it outlives the dispatcher, whose destruction releases owned callbacks.
Dispatch& GlobalDispatch() {
  static Dispatch* const instance = [] {
    kt::MemoryManager::Instance();
    static Dispatch dispatch;
    return &dispatch;
  }();
  return *instance;
}

[[maybe_unused]] Dispatch* const gBuildAtLoad = &GlobalDispatch();

}  // namespace

Callback::~Callback() = default;

Dispatch* Dispatch::Instance() { return &GlobalDispatch(); }

Dispatch::Dispatch() : stopped_(true) {}

Dispatch::Dispatch(const Dispatch&) : Dispatch() {}

Dispatch::~Dispatch() {
  while (!registered_.empty()) UnregisterEvent(*registered_.begin());
}

bool Dispatch::RegisterEvent(Event* event, Callback* callback, bool own) {
  if (event == nullptr || registered_.count(event) != 0 || event->dispatch_ != nullptr) {
    if (own && callback != nullptr) ReleaseCallback(callback, kRefusedRegistrationLine);
    return false;
  }
  registered_.insert(event);
  UpdateEvent(event, true);
  event->dispatch_ = this;
  event->callback_ = callback;
  event->ownCallback_ = own;
  return true;
}

bool Dispatch::UnregisterEvent(Event* event) {
  if (registered_.erase(event) == 0) return false;
  UpdateEvent(event, false);
  event->dispatch_ = nullptr;
  Callback* callback = event->callback_;
  const bool own = event->ownCallback_;
  event->callback_ = nullptr;
  event->ownCallback_ = false;
  if (callback != nullptr && own) ReleaseCallback(callback, kUnregistrationLine);
  return true;
}

void Dispatch::UnregisterAllEvents() {
  while (!registered_.empty()) UnregisterEvent(*registered_.begin());
}

bool Dispatch::IsEventRegistered(Event* event) const { return registered_.count(event) != 0; }

unsigned Dispatch::CountRegisteredEvents() const {
  return static_cast<unsigned>(registered_.size());
}

void Dispatch::TraceInfo() {}

void Dispatch::Reset() {}

void Dispatch::Stop() { stopped_ = true; }

void Dispatch::DispatchEvent(Event* event) {
  if (event->callback_ != nullptr) event->callback_->OnEvent(this, event);
}

unsigned Dispatch::MaxSleepTime(unsigned remaining) const {
  if (timed_.empty()) return remaining;
  return std::min(remaining, timed_.front()->MinEventTime());
}

void Dispatch::UnlinkTimed(Event* event) {
  auto found = timedIndex_.find(event);
  timed_.erase(found->second);
  timedIndex_.erase(found);
}

void Dispatch::InsertTimed(Event* event) {
  const unsigned min = event->MinEventTime();
  const unsigned max = event->MaxEventTime();
  if (min == Event::Infinite) {
    idle_.insert(event);
  } else if (max == 0) {
    timedIndex_[event] = timed_.insert(timed_.begin(), event);
  } else if (min < max) {
    // Fires at some unknown moment within a range: deliberately not scheduled.
  } else {
    auto position = std::find_if(timed_.begin(), timed_.end(),
                                 [min](Event* other) { return other->MinEventTime() > min; });
    timedIndex_[event] = timed_.insert(position, event);
  }
}

void Dispatch::UpdateEvent(Event* event, bool add) {
  if (idle_.erase(event) != 0) {
  } else if (timedIndex_.count(event) != 0) {
    UnlinkTimed(event);
  } else if (!add) {
    auto found = std::find(descriptorEvents_.begin(), descriptorEvents_.end(), event);
    if (found != descriptorEvents_.end()) {
      pollDescriptors_.erase(pollDescriptors_.begin() + (found - descriptorEvents_.begin()));
      descriptorEvents_.erase(found);
    }
  }
  if (!add) return;

  int read = -1;
  int write = -1;
  int except = -1;
  if (!event->GetDescriptors(read, write, except)) {
    InsertTimed(event);
    return;
  }
  if (std::find(descriptorEvents_.begin(), descriptorEvents_.end(), event) !=
      descriptorEvents_.end()) {
    return;
  }
  pollfd watched{0, 0, 0};
  if (read >= 0) {
    watched = pollfd{read, POLLIN, 0};
  } else if (write >= 0) {
    watched = pollfd{write, POLLOUT, 0};
  } else if (except >= 0) {
    watched = pollfd{except, POLLPRI, 0};
  }
  pollDescriptors_.push_back(watched);
  descriptorEvents_.push_back(event);
}

void Dispatch::UpdateExitEvents(int count, Event** events, bool add) {
  for (int i = 0; i < count; ++i) {
    Event* event = events[i];
    if (event == nullptr) continue;
    if (add) {
      UpdateEvent(event, true);
    } else if (!IsEventRegistered(event)) {
      UpdateEvent(event, false);
    }
  }
}

int Dispatch::Wait(int count, Event** exitEvents, Event** signalled, unsigned timeout) {
  stopped_ = false;
  if (count > 0) {
    const int found = Event::Wait(count, exitEvents, signalled, 0);
    if (found > 0) return found;
  }

  UpdateExitEvents(count, exitEvents, true);
  Timer timer(true);
  auto remainingTime = [&]() -> unsigned {
    if (timeout == Event::Infinite) return Event::Infinite;
    const unsigned elapsed = timer.Time();
    return timeout > elapsed ? timeout - elapsed : 0;
  };

  std::vector<Event*> timed;
  std::vector<Event*> ready;
  while (!stopped_) {
    // A copy, so that an event whose Poll() announces a change cannot upset the walk.
    timed.assign(timed_.begin(), timed_.end());
    ready.clear();
    for (Event* event : timed) {
      if (event->Poll()) ready.push_back(event);
    }

    if (ready.empty() && !pollDescriptors_.empty()) {
      int n = poll(pollDescriptors_.data(), pollDescriptors_.size(),
                   PollTimeout(MaxSleepTime(remainingTime())));
      for (size_t i = 0; n > 0 && i < pollDescriptors_.size(); ++i) {
        if (pollDescriptors_[i].revents != 0) {
          ready.push_back(descriptorEvents_[i]);
          --n;
        }
      }
    }

    for (Event* event : ready) {
      if (count > 0) {
        const int found = Event::Wait(count, exitEvents, signalled, 0);
        if (found > 0) {
          UpdateExitEvents(count, exitEvents, false);
          return found;
        }
      }
      if (IsEventRegistered(event) && event->Poll()) {
        event->DispatchEvent();
        UpdateExitEvents(count, exitEvents, true);
        if (stopped_) {
          UpdateExitEvents(count, exitEvents, false);
          return 0;
        }
      }
    }

    if (descriptorEvents_.empty()) {
      const unsigned sleep = MaxSleepTime(remainingTime());
      if (sleep != 0) {
        if (count < 1) {
          kt::__os_Sleep(sleep);
        } else {
          const int found = Event::Wait(count, exitEvents, signalled, sleep);
          if (found > 0) {
            UpdateExitEvents(count, exitEvents, false);
            return found;
          }
        }
      }
    }

    if (timeout != Event::Infinite && timer.Time() >= timeout) break;
  }
  UpdateExitEvents(count, exitEvents, false);
  return 0;
}

bool Dispatch::Wait(Event* event, unsigned timeout) {
  sigset_t block;
  sigemptyset(&block);
  sigaddset(&block, SIGCHLD);
  if (sigprocmask(SIG_BLOCK, &block, nullptr) != 0) return false;

  struct sigaction action = {};
  action.sa_sigaction = IgnoreSigChld;
  action.sa_flags = SA_SIGINFO;
  sigemptyset(&action.sa_mask);
  if (sigaction(SIGCHLD, &action, nullptr) != 0) return false;

  return Wait(1, &event, nullptr, timeout) > 0;
}

int Dispatch::Wait(unsigned timeout) {
  Wait(0, nullptr, nullptr, timeout);
  return 0;
}

namespace kt {

int Wait(int count, Event** exitEvents, Event** signalled, unsigned timeout) {
  return Dispatch::Instance()->Wait(count, exitEvents, signalled, timeout);
}

bool Wait(Event* event, unsigned timeout) { return Dispatch::Instance()->Wait(event, timeout); }

int Wait(unsigned timeout) { return Dispatch::Instance()->Wait(timeout); }

bool ResetCallback(Event* event) { return Dispatch::Instance()->UnregisterEvent(event); }

}  // namespace kt
