#include <gtest/gtest.h>

#include <unistd.h>

#include <vector>

#include "EventTestSupport.h"
#include "kt/Dispatch.h"
#include "kt/Event.h"
#include "kt/Utility.h"

namespace {

using eventtest::FunctionCallback;
using eventtest::NowMs;
using eventtest::SocketPair;

constexpr unsigned kInf = Event::Infinite;

// Always signalled; fires within [min, max] ms from now.
class FixedEvent : public Event {
 public:
  FixedEvent(unsigned min, unsigned max) : min_(min), max_(max) {}
  bool Poll() const override { return true; }
  unsigned MinEventTime() const override { return min_; }
  unsigned MaxEventTime() const override { return max_; }

 private:
  unsigned min_, max_;
};

// Always signalled, and reports a read and a write descriptor.
class TwoDescriptorEvent : public Event {
 public:
  TwoDescriptorEvent(int read, int write) : read_(read), write_(write) {}
  bool Poll() const override { return true; }
  bool GetDescriptors(int& read, int& write, int&) const override {
    read = read_;
    write = write_;
    return true;
  }

 private:
  int read_, write_;
};

// Every test leaves the process-wide dispatcher empty.
class DispatchTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(Dispatch::Instance()->CountRegisteredEvents(), 0u); }
};

TEST_F(DispatchTest, RegistrationTwiceReleasesTheOwnedCallback) {
  Dispatch dispatch, other;
  AsyncEvent event;
  int destroyed = 0;
  FunctionCallback* owned = kt::NewCallback<FunctionCallback>(nullptr, &destroyed);
  EXPECT_TRUE(dispatch.RegisterEvent(&event, owned, true));
  EXPECT_TRUE(dispatch.IsEventRegistered(&event));
  EXPECT_EQ(dispatch.CountRegisteredEvents(), 1u);
  EXPECT_EQ(event.Owner(), &dispatch);
  EXPECT_EQ(event.GetCallback(), owned);

  // Here or with another dispatcher, a second registration fails and releases what it was given.
  EXPECT_FALSE(
      dispatch.RegisterEvent(&event, kt::NewCallback<FunctionCallback>(nullptr, &destroyed), true));
  EXPECT_FALSE(
      other.RegisterEvent(&event, kt::NewCallback<FunctionCallback>(nullptr, &destroyed), true));
  EXPECT_EQ(destroyed, 2);
  FunctionCallback notOwned(nullptr, &destroyed);
  EXPECT_FALSE(other.RegisterEvent(&event, &notOwned, false));
  EXPECT_EQ(destroyed, 2);
  EXPECT_EQ(event.GetCallback(), owned) << "the registration in place is untouched";
  EXPECT_FALSE(other.UnregisterEvent(&event));

  EXPECT_TRUE(dispatch.UnregisterEvent(&event));
  EXPECT_EQ(destroyed, 3) << "the owned callback goes with the registration";
  EXPECT_EQ(event.Owner(), nullptr);
  EXPECT_EQ(event.GetCallback(), nullptr);
  EXPECT_FALSE(dispatch.UnregisterEvent(&event));
  EXPECT_TRUE(other.RegisterEvent(&event, &notOwned, false));
  EXPECT_TRUE(other.UnregisterEvent(&event));
}

TEST_F(DispatchTest, DestructionOnEitherSideUnregisters) {
  int destroyed = 0;
  AsyncEvent survivor;
  {
    Dispatch dispatch;
    {
      TimerEvent shortLived(10);
      ASSERT_TRUE(dispatch.RegisterEvent(&shortLived, nullptr, false));
      ASSERT_TRUE(dispatch.RegisterEvent(
          &survivor, kt::NewCallback<FunctionCallback>(nullptr, &destroyed), true));
    }
    EXPECT_EQ(dispatch.CountRegisteredEvents(), 1u);
    EXPECT_EQ(dispatch.Wait(20), 0) << "the destroyed timer must not be polled";
    EXPECT_EQ(Dispatch(dispatch).CountRegisteredEvents(), 0u) << "copies start empty";
  }
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(survivor.Owner(), nullptr);
}

TEST_F(DispatchTest, EventsWithoutExactTimesAreNeverDispatched) {
  Dispatch dispatch;
  FixedEvent ranged(0, kInf);  // signalled, but may fire anywhere from now to never
  FixedEvent alsoRanged(5, 6);
  AsyncEvent idle;
  std::vector<Event*> dispatched;
  FunctionCallback record([&dispatched](Dispatch* d, Event* e) {
    dispatched.push_back(e);
    d->Stop();
  });
  for (Event* e : std::vector<Event*>{&ranged, &alsoRanged, &idle}) {
    ASSERT_TRUE(dispatch.RegisterEvent(e, &record, false));
  }
  ranged.UpdateEvent();
  EXPECT_EQ(dispatch.Wait(40), 0);
  EXPECT_TRUE(dispatched.empty());

  idle.Signal(true);  // leaves the idle set for the schedule
  EXPECT_EQ(dispatch.Wait(1000), 0);
  EXPECT_EQ(dispatched, std::vector<Event*>{&idle});
  dispatch.UnregisterAllEvents();
  EXPECT_EQ(idle.Owner(), nullptr);
}

TEST_F(DispatchTest, TimedEventsAreKeptInOrderOfTheirTimes) {
  Dispatch dispatch;
  FixedEvent a(20, 20), b(10, 10), c(20, 20), d(10, 10), now1(5, 0), now2(0, 0);
  std::vector<Event*> order;
  size_t stopAt = 6;
  FunctionCallback record([&](Dispatch* self, Event* e) {
    order.push_back(e);
    if (order.size() == stopAt) self->Stop();
  });
  // Nearest first, first come first served among equals; those with a maximum of 0 go in front.
  for (Event* e : std::vector<Event*>{&a, &b, &now1, &c, &d, &now2}) {
    ASSERT_TRUE(dispatch.RegisterEvent(e, &record, false));
  }
  EXPECT_EQ(dispatch.Wait(1000), 0);
  EXPECT_EQ(order, (std::vector<Event*>{&now2, &now1, &b, &d, &a, &c}));
  EXPECT_EQ(dispatch.MaxSleepTime(500), 0u);

  // An update moves an event behind its equals.
  dispatch.UnregisterEvent(&now1);
  dispatch.UnregisterEvent(&now2);
  b.UpdateEvent();
  EXPECT_EQ(dispatch.MaxSleepTime(500), 10u);
  EXPECT_EQ(dispatch.MaxSleepTime(5), 5u);
  order.clear();
  stopAt = 4;
  EXPECT_EQ(dispatch.Wait(1000), 0);
  EXPECT_EQ(order, (std::vector<Event*>{&d, &b, &a, &c}));
  dispatch.UnregisterAllEvents();
  EXPECT_EQ(dispatch.MaxSleepTime(500), 500u);
}

TEST_F(DispatchTest, TimersRunOnScheduleAndPeriodicResetDoesNotDrift) {
  Dispatch dispatch;
  Timer clock(true);  // no younger than the events
  TimerEvent periodic(100), once(30);
  Timer youngerClock(true);  // no older than the events
  std::vector<unsigned> periodicTimes, onceTimes;
  FunctionCallback onPeriodic([&](Dispatch*, Event*) {
    periodicTimes.push_back(clock.Time());
    kt::__os_Sleep(30);  // work in the callback must not shift the schedule
    periodic.Reset(true);
  });
  FunctionCallback onOnce([&](Dispatch*, Event*) {
    onceTimes.push_back(clock.Time());
    once.SetInterval(kInf);
  });
  ASSERT_TRUE(dispatch.RegisterEvent(&periodic, &onPeriodic, false));
  ASSERT_TRUE(dispatch.RegisterEvent(&once, &onOnce, false));
  // However late a busy machine wakes the waits, each call comes after its due point.
  while (periodicTimes.size() < 2 && clock.Time() < 10000) EXPECT_EQ(dispatch.Wait(50), 0);

  ASSERT_EQ(onceTimes.size(), 1u);
  EXPECT_GE(onceTimes[0], 30u);
  ASSERT_GE(periodicTimes.size(), 2u);
  for (size_t i = 0; i < periodicTimes.size(); ++i) {
    EXPECT_GE(periodicTimes[i], 100 * (i + 1)) << "dispatched early, call " << i;
  }
  // The next due point is a whole number of intervals after creation: the event's age lies
  // between the younger clock (read before it) and the older one (read after it).
  const unsigned youngerAge = youngerClock.Time();
  const unsigned left = periodic.Time();
  const unsigned olderAge = clock.Time();
  const unsigned due = 100 * (static_cast<unsigned>(periodicTimes.size()) + 1);
  EXPECT_GE(left + olderAge, due);
  if (left > 0) {
    EXPECT_LE(left + youngerAge, due + 1);
  }
  dispatch.UnregisterAllEvents();
}

TEST_F(DispatchTest, WaitTimesOutAndStopEndsItAfterTheCurrentCallback) {
  Dispatch dispatch;
  long long start = NowMs();
  EXPECT_EQ(dispatch.Wait(0, nullptr, nullptr, 0), 0);
  EXPECT_LT(NowMs() - start, 50);
  EXPECT_EQ(dispatch.Wait(40), 0);
  EXPECT_GE(NowMs() - start, 39);

  // Two events due at once; the first callback stops the wait.
  TimerEvent first(0), second(0);
  int calls = 0;
  FunctionCallback stopper([&calls](Dispatch* d, Event*) {
    ++calls;
    d->Stop();
  });
  ASSERT_TRUE(dispatch.RegisterEvent(&first, &stopper, false));
  ASSERT_TRUE(dispatch.RegisterEvent(&second, &stopper, false));
  EXPECT_EQ(dispatch.Wait(kInf), 0);
  EXPECT_EQ(calls, 1);

  // Stop() outside a wait has no effect: the next wait clears it.
  dispatch.Stop();
  dispatch.UnregisterEvent(&second);
  calls = 0;
  FunctionCallback counter([&calls](Dispatch*, Event* e) {
    ++calls;
    static_cast<TimerEvent*>(e)->SetInterval(kInf);
  });
  dispatch.UnregisterEvent(&first);
  ASSERT_TRUE(dispatch.RegisterEvent(&first, &counter, false));
  EXPECT_EQ(dispatch.Wait(30), 0);
  EXPECT_EQ(calls, 1);
  dispatch.UnregisterAllEvents();
}

TEST_F(DispatchTest, ExitEventsEndTheWaitWithoutBeingDispatched) {
  Dispatch dispatch;
  TimerEvent tick(10);
  int calls = 0;
  AsyncEvent exit;
  FunctionCallback ticker([&](Dispatch*, Event*) {
    tick.Reset(true);
    if (++calls == 3) exit.Signal(true);
  });
  ASSERT_TRUE(dispatch.RegisterEvent(&tick, &ticker, false));
  Event* exits[] = {&exit};
  Event* signalled[1] = {};

  // Signalled by a callback.
  EXPECT_EQ(dispatch.Wait(1, exits, signalled, 5000), 1);
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(signalled[0], &exit);
  // Already signalled: returned at once, nothing dispatched.
  calls = 0;
  EXPECT_EQ(dispatch.Wait(1, exits, nullptr, 1000), 1);
  EXPECT_EQ(calls, 0);

  // An unregistered timer: ends the wait when due, while the registered ticker keeps going.
  TimerEvent deadline(60);
  Event* timed[] = {&deadline};
  const long long start = NowMs();
  EXPECT_EQ(dispatch.Wait(1, timed, nullptr, 5000), 1);
  EXPECT_GE(NowMs() - start, 55);
  EXPECT_GE(calls, 2);

  // A registered exit event ends the wait, is not dispatched and stays registered.
  exit.Signal(false);
  calls = 0;
  ASSERT_TRUE(dispatch.RegisterEvent(&exit, &ticker, false));
  EXPECT_EQ(dispatch.Wait(1, exits, nullptr, 5000), 1);
  EXPECT_EQ(calls, 3);
  EXPECT_TRUE(dispatch.IsEventRegistered(&exit));
  dispatch.UnregisterAllEvents();

  // Exit events that never fire: time-out.
  TimerEvent never(kInf);
  Event* quiet[] = {&never};
  EXPECT_EQ(dispatch.Wait(1, quiet, signalled, 30), 0);
}

TEST_F(DispatchTest, SocketReadinessIsDispatched) {
  Dispatch dispatch;
  SocketPair pair;
  ASSERT_TRUE(pair.ok());
  SocketReadEvent readable(pair.fd[0]);
  int reads = 0;
  FunctionCallback reader([&](Dispatch*, Event*) {
    EXPECT_TRUE(pair.Receive());
    ++reads;
  });
  ASSERT_TRUE(dispatch.RegisterEvent(&readable, &reader, false));
  EXPECT_EQ(dispatch.Wait(20), 0);
  EXPECT_EQ(reads, 0);
  ASSERT_TRUE(pair.Send());
  ASSERT_TRUE(pair.Send());
  EXPECT_EQ(dispatch.Wait(100), 0);
  EXPECT_EQ(reads, 2);

  // A socket as exit event.
  SocketReadEvent otherEnd(pair.fd[1]);
  Event* exits[] = {&otherEnd};
  ASSERT_EQ(write(pair.fd[0], "y", 1), 1);
  EXPECT_EQ(dispatch.Wait(1, exits, nullptr, 2000), 1);

  // Of an event's descriptors only the read one is watched: never readable here, so an event that
  // also names the writable end is not dispatched; without a read descriptor, it is.
  dispatch.UnregisterAllEvents();
  TwoDescriptorEvent both(pair.fd[0], pair.fd[1]), writeOnly(-1, pair.fd[1]);
  int calls = 0;
  FunctionCallback stopper([&calls](Dispatch* d, Event*) {
    ++calls;
    d->Stop();
  });
  ASSERT_TRUE(dispatch.RegisterEvent(&both, &stopper, false));
  EXPECT_EQ(dispatch.Wait(40), 0);
  EXPECT_EQ(calls, 0);
  ASSERT_TRUE(dispatch.RegisterEvent(&writeOnly, &stopper, false));
  EXPECT_EQ(dispatch.Wait(1000), 0);
  EXPECT_EQ(calls, 1);
  dispatch.UnregisterAllEvents();
}

TEST_F(DispatchTest, DescriptorsAboveFdSetSizeAreDispatched) {
  Dispatch dispatch;
  SocketPair pair;
  ASSERT_TRUE(pair.ok());
  eventtest::HighDescriptor high(pair.fd[0]);
  if (!high.ok()) GTEST_SKIP() << "cannot open a descriptor at or above FD_SETSIZE";
  SocketReadEvent readable(pair.fd[0]);
  int reads = 0;
  FunctionCallback reader([&](Dispatch* d, Event*) {
    reads += pair.Receive();
    d->Stop();
  });
  ASSERT_TRUE(dispatch.RegisterEvent(&readable, &reader, false));
  ASSERT_TRUE(pair.Send());
  EXPECT_EQ(dispatch.Wait(2000), 0);
  EXPECT_EQ(reads, 1);
  // As an exit event it goes through Event::Wait.
  ASSERT_TRUE(pair.Send());
  dispatch.UnregisterEvent(&readable);
  Event* exits[] = {&readable};
  EXPECT_EQ(dispatch.Wait(1, exits, nullptr, 2000), 1);
}

TEST_F(DispatchTest, ProcessWideInstanceAndForwarders) {
  Dispatch* instance = Dispatch::Instance();
  EXPECT_EQ(instance, Dispatch::Instance());
  TimerEvent timer(0);
  int calls = 0;
  FunctionCallback stopper([&calls](Dispatch* d, Event*) {
    ++calls;
    d->Stop();
  });
  ASSERT_TRUE(instance->RegisterEvent(&timer, &stopper, false));
  EXPECT_EQ(kt::Wait(1000), 0);
  EXPECT_EQ(calls, 1);

  AsyncEvent exit;
  exit.Signal(true);
  Event* exits[] = {&exit};
  Event* signalled[1] = {};
  EXPECT_EQ(kt::Wait(1, exits, signalled, 1000), 1);
  EXPECT_EQ(signalled[0], &exit);
  EXPECT_TRUE(kt::ResetCallback(&timer));
  EXPECT_FALSE(kt::ResetCallback(&timer));
}

}  // namespace
