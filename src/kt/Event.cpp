#include "kt/Event.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <sstream>
#include <utility>
#include <vector>

#include "kt/Dispatch.h"
#include "kt/Utility.h"

namespace {

// Sleeps and descriptor waits of the polling loops never last less than this.
constexpr unsigned kMinimumSleepMs = 10;

unsigned AtLeastMinimumSleep(unsigned ms) { return ms <= kMinimumSleepMs ? kMinimumSleepMs : ms; }

enum SetKind { kRead = 0, kWrite = 1, kExcept = 2 };

// The three descriptor sets of a select() call, waited on with poll() so that descriptors of any
// value work (an fd_set holds only those below FD_SETSIZE). Select() keeps select()'s contract:
// it returns the number of set memberships that are ready, leaves in each set only its ready
// descriptors (none after a time-out), and fails with -1 (errno EBADF) when a descriptor is not
// open.
class DescriptorSets {
 public:
  void Add(SetKind kind, int fd) {
    if (!IsSet(kind, fd)) sets_[kind].push_back(fd);
  }

  bool IsSet(SetKind kind, int fd) const {
    const std::vector<int>& set = sets_[kind];
    return std::find(set.begin(), set.end(), fd) != set.end();
  }

  // timeout in ms; Event::Infinite waits without limit.
  int Select(unsigned timeout) {
    std::vector<pollfd> fds = PollDescriptors();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout);
    for (;;) {
      int wait = -1;
      if (timeout != Event::Infinite) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        wait = static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
      }
      const int n = poll(fds.data(), fds.size(), wait);
      if (n < 0) return -1;
      if (n == 0) {
        if (timeout != Event::Infinite && std::chrono::steady_clock::now() < deadline) continue;
        for (std::vector<int>& set : sets_) set.clear();
        return 0;
      }
      for (const pollfd& p : fds) {
        if (p.revents & POLLNVAL) {
          errno = EBADF;
          return -1;
        }
      }
      const int ready = KeepReady(fds);
      if (ready > 0) return ready;
      // Woken by a hang-up or error on a descriptor watched only for writing or for exceptional
      // conditions, which select() does not report: stop watching it and wait out the rest.
      for (pollfd& p : fds) {
        if (p.revents != 0) p.fd = -1;
      }
    }
  }

 private:
  // The revents bits that make a descriptor ready for each set, as select() counts them.
  static short ReadyBits(SetKind kind) {
    switch (kind) {
      case kRead:
        return POLLIN | POLLHUP | POLLERR;
      case kWrite:
        return POLLOUT | POLLERR;
      case kExcept:
        return POLLPRI;
    }
    return 0;
  }

  static short RequestBits(SetKind kind) {
    switch (kind) {
      case kRead:
        return POLLIN;
      case kWrite:
        return POLLOUT;
      case kExcept:
        return POLLPRI;
    }
    return 0;
  }

  // One pollfd per distinct descriptor, sorted by descriptor.
  std::vector<pollfd> PollDescriptors() const {
    std::vector<std::pair<int, short>> wanted;
    for (int kind = kRead; kind <= kExcept; ++kind) {
      for (int fd : sets_[kind]) wanted.emplace_back(fd, RequestBits(static_cast<SetKind>(kind)));
    }
    std::sort(wanted.begin(), wanted.end());
    std::vector<pollfd> fds;
    for (const auto& [fd, events] : wanted) {
      if (fds.empty() || fds.back().fd != fd) fds.push_back(pollfd{fd, 0, 0});
      fds.back().events |= events;
    }
    return fds;
  }

  int KeepReady(const std::vector<pollfd>& fds) {
    int ready = 0;
    for (int kind = kRead; kind <= kExcept; ++kind) {
      std::vector<int>& set = sets_[kind];
      const short bits = ReadyBits(static_cast<SetKind>(kind));
      set.erase(std::remove_if(set.begin(), set.end(),
                               [&](int fd) {
                                 auto it = std::lower_bound(
                                     fds.begin(), fds.end(), fd,
                                     [](const pollfd& p, int value) { return p.fd < value; });
                                 return it == fds.end() || it->fd != fd ||
                                        (it->revents & bits) == 0;
                               }),
                set.end());
      ready += static_cast<int>(set.size());
    }
    return ready;
  }

  std::vector<int> sets_[3];
};

// A zero-timeout test of one descriptor for one condition.
bool PollHandle(int handle, SetKind kind) {
  if (handle == SocketEvent::NullHandle) return false;
  DescriptorSets sets;
  sets.Add(kind, handle);
  return sets.Select(0) == 1;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Event

Event::Event() : dispatch_(nullptr), callback_(nullptr), ownCallback_(false), data_(nullptr) {}

Event::~Event() {
  if (dispatch_ != nullptr) {
    dispatch_->UnregisterEvent(this);
    dispatch_ = nullptr;
  }
}

std::string Event::Type() const { return "Event"; }

void Event::DispatchEvent() {
  if (dispatch_ != nullptr) dispatch_->DispatchEvent(this);
}

unsigned Event::MinEventTime() const { return 0; }

unsigned Event::MaxEventTime() const { return Infinite; }

bool Event::GetDescriptors(int&, int&, int&) const { return false; }

Event::operator std::string() const {
  std::ostringstream out;
  out << static_cast<const void*>(this) << ", " << MinEventTime() << ", " << MaxEventTime() << ", "
      << Type();
  return out.str();
}

void Event::UpdateEvent() {
  if (dispatch_ != nullptr) dispatch_->UpdateEvent(this, true);
}

bool Event::Wait(unsigned timeout) const {
  int read = -1;
  int write = -1;
  int except = -1;
  if (GetDescriptors(read, write, except)) {
    DescriptorSets sets;
    if (read >= 0) sets.Add(kRead, read);
    if (write >= 0) sets.Add(kWrite, write);
    if (except >= 0) sets.Add(kExcept, except);
    return sets.Select(timeout) >= 1;
  }

  Timer timer(true);
  for (;;) {
    if (Poll()) return true;
    unsigned remaining = Infinite;
    if (timeout != Infinite) {
      const unsigned elapsed = timer.Time();
      if (timeout <= elapsed) return false;
      remaining = timeout - elapsed;
    }
    if (!kt::__os_Sleep(AtLeastMinimumSleep(std::min(MinEventTime(), remaining)))) return false;
  }
}

int Event::Wait(int count, Event** events, Event** signalled, unsigned timeout) {
  DescriptorSets sets;
  std::vector<Event*> descriptorEvents;
  std::vector<Event*> polledEvents;
  for (int i = 0; i < count; ++i) {
    Event* event = events[i];
    if (event == nullptr) continue;
    int read = -1;
    int write = -1;
    int except = -1;
    if (event->GetDescriptors(read, write, except)) {
      descriptorEvents.push_back(event);
      if (read >= 0) sets.Add(kRead, read);
      if (write >= 0) sets.Add(kWrite, write);
      if (except >= 0) sets.Add(kExcept, except);
    } else {
      polledEvents.push_back(event);
    }
  }

  if (descriptorEvents.empty() && polledEvents.empty()) {
    if (timeout == Infinite) {
      while (kt::__os_Sleep(999)) {
      }
    } else {
      kt::__os_Sleep(timeout);
    }
    return 0;
  }

  Timer timer(true);
  auto remainingTime = [&]() -> unsigned {
    if (timeout == Infinite) return Infinite;
    const unsigned elapsed = timer.Time();
    return timeout > elapsed ? timeout - elapsed : 0;
  };
  auto nearestPolled = [&]() -> unsigned {
    unsigned nearest = Infinite;
    for (Event* event : polledEvents) nearest = std::min(nearest, event->MinEventTime());
    return nearest;
  };

  for (;;) {
    int found = 0;
    unsigned remaining = Infinite;
    if (!descriptorEvents.empty()) {
      remaining = AtLeastMinimumSleep(std::min(remainingTime(), nearestPolled()));
      if (sets.Select(remaining) == -1) return 0;
      for (Event* event : descriptorEvents) {
        int read = -1;
        int write = -1;
        int except = -1;
        event->GetDescriptors(read, write, except);
        if ((read >= 0 && sets.IsSet(kRead, read)) || (write >= 0 && sets.IsSet(kWrite, write)) ||
            (except >= 0 && sets.IsSet(kExcept, except))) {
          if (signalled != nullptr) signalled[found] = event;
          ++found;
        }
      }
    }
    for (Event* event : polledEvents) {
      if (event->Poll()) {
        if (signalled != nullptr) signalled[found] = event;
        ++found;
      }
    }
    if (found > 0) return found;
    if (timeout != Infinite && timer.Time() >= timeout) return 0;
    if (!descriptorEvents.empty()) continue;

    remaining = remainingTime();
    if (!kt::__os_Sleep(AtLeastMinimumSleep(std::min(remaining, nearestPolled())))) return 0;
  }
}

// ---------------------------------------------------------------------------------------------
// AsyncEvent

AsyncEvent::AsyncEvent(EventType type) : type_(type), signalled_(false) {}

AsyncEvent::~AsyncEvent() = default;

std::string AsyncEvent::Type() const { return "AsyncEvent"; }

bool AsyncEvent::Poll() const { return signalled_.load(); }

void AsyncEvent::DispatchEvent() { Event::DispatchEvent(); }

unsigned AsyncEvent::MinEventTime() const { return signalled_.load() ? 0 : Infinite; }

unsigned AsyncEvent::MaxEventTime() const { return signalled_.load() ? 0 : Infinite; }

void AsyncEvent::Signal(bool state) {
  if (signalled_.exchange(state) != state) UpdateEvent();
}

// ---------------------------------------------------------------------------------------------
// TimerEvent

TimerEvent::TimerEvent(unsigned interval) : timer_(true), interval_(interval), base_(0) {}

TimerEvent::~TimerEvent() = default;

std::string TimerEvent::Type() const { return "TimerEvent"; }

bool TimerEvent::Poll() const { return Time() == 0; }

unsigned TimerEvent::MinEventTime() const { return Time(); }

unsigned TimerEvent::MaxEventTime() const { return Time(); }

void TimerEvent::SetInterval(unsigned ms) {
  interval_ = ms;
  UpdateEvent();
}

unsigned TimerEvent::Time() const {
  if (interval_ == 0) return 0;
  if (interval_ == Infinite) return Infinite;
  const unsigned due = base_ + interval_;
  const unsigned elapsed = timer_.Time();
  return elapsed < due ? due - elapsed : 0;
}

void TimerEvent::Reset(bool periodic) {
  if (periodic && interval_ != Infinite) {
    base_ += interval_;
  } else {
    base_ = 0;
    timer_.Reset();
  }
  UpdateEvent();
}

// ---------------------------------------------------------------------------------------------
// Socket events

SocketEvent::SocketEvent(int handle) : handle_(handle) {}

SocketEvent::~SocketEvent() = default;

SocketReadEvent::SocketReadEvent(int handle) : SocketEvent(handle) {}

SocketReadEvent::~SocketReadEvent() = default;

std::string SocketReadEvent::Type() const { return "SocketReadEvent"; }

bool SocketReadEvent::Poll() const { return PollHandle(handle_, kRead); }

unsigned SocketReadEvent::MinEventTime() const { return 0; }

bool SocketReadEvent::GetDescriptors(int& read, int& write, int& except) const {
  read = handle_;
  write = -1;
  except = -1;
  return true;
}

SocketWriteEvent::SocketWriteEvent(int handle) : SocketEvent(handle) {}

SocketWriteEvent::~SocketWriteEvent() = default;

std::string SocketWriteEvent::Type() const { return "SocketWriteEvent"; }

bool SocketWriteEvent::Poll() const { return PollHandle(handle_, kWrite); }

bool SocketWriteEvent::GetDescriptors(int& read, int& write, int& except) const {
  read = -1;
  write = handle_;
  except = -1;
  return true;
}

SocketExceptEvent::SocketExceptEvent(int handle) : SocketEvent(handle) {}

SocketExceptEvent::~SocketExceptEvent() = default;

std::string SocketExceptEvent::Type() const { return "SocketExceptEvent"; }

bool SocketExceptEvent::Poll() const { return PollHandle(handle_, kExcept); }

bool SocketExceptEvent::GetDescriptors(int& read, int& write, int& except) const {
  read = -1;
  write = -1;
  except = handle_;
  return true;
}
