#include <gtest/gtest.h>

#include <unistd.h>

#include <vector>

#include "EventTestSupport.h"
#include "kt/Dispatch.h"
#include "kt/Event.h"
#include "kt/MemoryManager.h"
#include "kt/Utility.h"

namespace {

using eventtest::FunctionCallback;
using eventtest::HighDescriptor;
using eventtest::NowMs;
using eventtest::SocketPair;

constexpr unsigned kInf = Event::Infinite;

// Signalled whenever the test says; with the base times (0 to Infinite) it is never scheduled.
class PlainEvent : public Event {
 public:
  bool signalled = true;
  bool Poll() const override { return signalled; }
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
  int read_;
  int write_;
};

class DispatchTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(Dispatch::Instance()->CountRegisteredEvents(), 0u); }
};

TEST_F(DispatchTest, RegistrationAndOwnedCallbacks) {
  Dispatch dispatch;
  AsyncEvent event;
  int destroyed = 0;
  FunctionCallback* owned = kt::NewCallback<FunctionCallback>(nullptr, &destroyed);
  ASSERT_NE(owned, nullptr);
  EXPECT_TRUE(dispatch.RegisterEvent(&event, owned, true));
  EXPECT_TRUE(dispatch.IsEventRegistered(&event));
  EXPECT_EQ(dispatch.CountRegisteredEvents(), 1u);
  EXPECT_EQ(event.Owner(), &dispatch);
  EXPECT_EQ(event.GetCallback(), owned);
  EXPECT_TRUE(event.OwnsCallback());

  // A second registration fails and releases the owned callback it was given.
  EXPECT_FALSE(
      dispatch.RegisterEvent(&event, kt::NewCallback<FunctionCallback>(nullptr, &destroyed), true));
  EXPECT_EQ(destroyed, 1);
  // So does registration with another dispatcher; a callback not owned is left alone.
  Dispatch other;
  FunctionCallback notOwned(nullptr, &destroyed);
  EXPECT_FALSE(other.RegisterEvent(&event, &notOwned, false));
  EXPECT_FALSE(
      other.RegisterEvent(&event, kt::NewCallback<FunctionCallback>(nullptr, &destroyed), true));
  EXPECT_EQ(destroyed, 2);
  EXPECT_EQ(event.GetCallback(), owned) << "the registration in place is untouched";
  EXPECT_FALSE(other.UnregisterEvent(&event));

  EXPECT_TRUE(dispatch.UnregisterEvent(&event));
  EXPECT_EQ(destroyed, 3) << "the owned callback goes with the registration";
  EXPECT_EQ(event.Owner(), nullptr);
  EXPECT_EQ(event.GetCallback(), nullptr);
  EXPECT_FALSE(dispatch.UnregisterEvent(&event));
  EXPECT_EQ(dispatch.CountRegisteredEvents(), 0u);

  // Unregistered, the event can be registered again, with a callback it does not own.
  EXPECT_TRUE(other.RegisterEvent(&event, &notOwned, false));
  EXPECT_TRUE(other.UnregisterEvent(&event));
  EXPECT_EQ(destroyed, 3);
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
      EXPECT_EQ(dispatch.CountRegisteredEvents(), 2u);
    }
    EXPECT_EQ(dispatch.CountRegisteredEvents(), 1u);
    EXPECT_EQ(dispatch.Wait(20), 0) << "the destroyed timer must not be polled";

    Dispatch copy(dispatch);
    EXPECT_EQ(copy.CountRegisteredEvents(), 0u);
  }
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(survivor.Owner(), nullptr);

  Dispatch dispatch;
  TimerEvent a(10), b(20);
  dispatch.RegisterEvent(&a, nullptr, false);
  dispatch.RegisterEvent(&b, nullptr, false);
  dispatch.UnregisterAllEvents();
  EXPECT_EQ(dispatch.CountRegisteredEvents(), 0u);
  EXPECT_EQ(a.Owner(), nullptr);
}

TEST_F(DispatchTest, EventsWithoutExactTimesAreNeverDispatched) {
  Dispatch dispatch;
  PlainEvent ranged;  // signalled, but may fire anywhere from 0 to Infinite
  AsyncEvent idle;
  TimerEvent never(kInf);
  std::vector<Event*> dispatched;
  FunctionCallback record([&dispatched](Dispatch*, Event* e) { dispatched.push_back(e); });
  ASSERT_TRUE(dispatch.RegisterEvent(&ranged, &record, false));
  ASSERT_TRUE(dispatch.RegisterEvent(&idle, &record, false));
  ASSERT_TRUE(dispatch.RegisterEvent(&never, &record, false));
  EXPECT_EQ(dispatch.Wait(40), 0);
  EXPECT_TRUE(dispatched.empty());

  // An update does not help the ranged event; a signal moves the idle one into the schedule.
  ranged.UpdateEvent();
  idle.Signal(true);
  FunctionCallback stop([&dispatched](Dispatch* d, Event* e) {
    dispatched.push_back(e);
    d->Stop();
  });
  dispatch.UnregisterEvent(&idle);
  dispatch.RegisterEvent(&idle, &stop, false);
  EXPECT_EQ(dispatch.Wait(1000), 0);
  ASSERT_EQ(dispatched.size(), 1u);
  EXPECT_EQ(dispatched[0], &idle);
  dispatch.UnregisterAllEvents();
}

TEST_F(DispatchTest, TimersAreDispatchedOnScheduleAndPeriodicResetDoesNotDrift) {
  Dispatch dispatch;
  Timer clock(true);
  TimerEvent periodic(100);
  TimerEvent once(30);
  std::vector<unsigned> periodicTimes;
  std::vector<unsigned> onceTimes;
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

  EXPECT_EQ(dispatch.Wait(250), 0);
  ASSERT_EQ(onceTimes.size(), 1u);
  EXPECT_GE(onceTimes[0], 30u);
  ASSERT_GE(periodicTimes.size(), 2u);
  EXPECT_LE(periodicTimes.size(), 3u);
  for (size_t i = 0; i < periodicTimes.size(); ++i) {
    EXPECT_GE(periodicTimes[i], 100 * (i + 1)) << "dispatched early, call " << i;
  }
  // The next due point is a whole number of intervals after creation.
  EXPECT_EQ((periodic.Time() + clock.Time() + 5) / 100 * 100, 100 * (periodicTimes.size() + 1));
  EXPECT_TRUE(dispatch.UnregisterEvent(&periodic));
  EXPECT_TRUE(dispatch.UnregisterEvent(&once));
}

TEST_F(DispatchTest, WaitTimesOutAndStopEndsItAfterTheCurrentCallback) {
  Dispatch dispatch;
  long long start = NowMs();
  EXPECT_EQ(dispatch.Wait(0, nullptr, nullptr, 0), 0);
  EXPECT_EQ(dispatch.Wait(0), 0);
  EXPECT_LT(NowMs() - start, 50);
  start = NowMs();
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
  start = NowMs();
  EXPECT_EQ(dispatch.Wait(kInf), 0);
  EXPECT_EQ(calls, 1);
  EXPECT_LT(NowMs() - start, 2000);

  // Stop() before Wait has no effect: Wait clears it.
  dispatch.Stop();
  calls = 0;
  FunctionCallback counter([&calls](Dispatch*, Event* e) {
    ++calls;
    static_cast<TimerEvent*>(e)->SetInterval(kInf);
  });
  dispatch.UnregisterAllEvents();
  ASSERT_TRUE(dispatch.RegisterEvent(&first, &counter, false));
  EXPECT_EQ(dispatch.Wait(30), 0);
  EXPECT_EQ(calls, 1);
  dispatch.UnregisterAllEvents();
}

TEST_F(DispatchTest, ExitEventsEndTheWaitWithoutBeingDispatched) {
  Dispatch dispatch;
  TimerEvent due(0);
  int calls = 0;
  FunctionCallback counter([&calls](Dispatch*, Event*) { ++calls; });
  ASSERT_TRUE(dispatch.RegisterEvent(&due, &counter, false));

  // Already signalled: returned at once, nothing dispatched.
  AsyncEvent exit;
  exit.Signal(true);
  Event* exits[] = {&exit};
  Event* signalled[1] = {};
  EXPECT_EQ(dispatch.Wait(1, exits, signalled, 1000), 1);
  EXPECT_EQ(signalled[0], &exit);
  EXPECT_EQ(calls, 0);
  dispatch.UnregisterEvent(&due);

  // Signalled by a callback.
  exit.Signal(false);
  TimerEvent tick(10);
  FunctionCallback signaller([&](Dispatch*, Event*) {
    ++calls;
    tick.Reset(true);
    if (calls == 3) exit.Signal(true);
  });
  ASSERT_TRUE(dispatch.RegisterEvent(&tick, &signaller, false));
  signalled[0] = nullptr;
  EXPECT_EQ(dispatch.Wait(1, exits, signalled, 5000), 1);
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(signalled[0], &exit);

  // An unregistered timer as exit event: ends the wait when due; the registered ticker keeps going.
  TimerEvent deadline(60);
  Event* timed[] = {&deadline};
  calls = 0;
  const long long start = NowMs();
  EXPECT_EQ(dispatch.Wait(1, timed, nullptr, 5000), 1);
  EXPECT_GE(NowMs() - start, 55);
  EXPECT_GE(calls, 2);
  EXPECT_FALSE(dispatch.IsEventRegistered(&deadline));

  // A registered exit event is both: it ends the wait and stays registered.
  AsyncEvent registeredExit;
  ASSERT_TRUE(dispatch.RegisterEvent(&registeredExit, &counter, false));
  FunctionCallback signalOther([&](Dispatch*, Event*) {
    tick.Reset(true);
    registeredExit.Signal(true);
  });
  dispatch.UnregisterEvent(&tick);
  dispatch.RegisterEvent(&tick, &signalOther, false);
  Event* both[] = {&registeredExit};
  calls = 0;
  EXPECT_EQ(dispatch.Wait(1, both, nullptr, 5000), 1);
  EXPECT_EQ(calls, 0);
  EXPECT_TRUE(dispatch.IsEventRegistered(&registeredExit));
  dispatch.UnregisterAllEvents();

  // Time-out with exit events that never fire.
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

  // A socket exit event: data on the other end ends the wait.
  SocketReadEvent other(pair.fd[1]);
  Event* exits[] = {&other};
  ASSERT_EQ(write(pair.fd[0], "y", 1), 1);
  EXPECT_EQ(dispatch.Wait(1, exits, nullptr, 2000), 1);
  EXPECT_TRUE(dispatch.UnregisterEvent(&readable));
}

TEST_F(DispatchTest, OnlyTheReadDescriptorOfAnEventIsWatched) {
  Dispatch dispatch;
  SocketPair pair;
  ASSERT_TRUE(pair.ok());
  // The write descriptor is writable at once, the read one never: watched for reading alone, the
  // event is never dispatched.
  TwoDescriptorEvent both(pair.fd[0], pair.fd[1]);
  int calls = 0;
  FunctionCallback counter([&calls](Dispatch* d, Event*) {
    ++calls;
    d->Stop();
  });
  ASSERT_TRUE(dispatch.RegisterEvent(&both, &counter, false));
  EXPECT_EQ(dispatch.Wait(40), 0);
  EXPECT_EQ(calls, 0);

  TwoDescriptorEvent writeOnly(-1, pair.fd[1]);
  ASSERT_TRUE(dispatch.RegisterEvent(&writeOnly, &counter, false));
  EXPECT_EQ(dispatch.Wait(1000), 0);
  EXPECT_EQ(calls, 1);
  dispatch.UnregisterAllEvents();
}

TEST_F(DispatchTest, DescriptorsAboveFdSetSizeAreDispatched) {
  Dispatch dispatch;
  SocketPair pair;
  ASSERT_TRUE(pair.ok());
  HighDescriptor high(pair.fd[0]);
  if (!high.ok()) GTEST_SKIP() << "cannot open a descriptor at or above FD_SETSIZE";
  SocketReadEvent readable(pair.fd[0]);
  int reads = 0;
  FunctionCallback reader([&](Dispatch* d, Event*) {
    pair.Receive();
    ++reads;
    d->Stop();
  });
  ASSERT_TRUE(dispatch.RegisterEvent(&readable, &reader, false));
  ASSERT_TRUE(pair.Send());
  EXPECT_EQ(dispatch.Wait(2000), 0);
  EXPECT_EQ(reads, 1);

  // The same descriptor as an exit event goes through Event::Wait.
  ASSERT_TRUE(pair.Send());
  dispatch.UnregisterEvent(&readable);
  Event* exits[] = {&readable};
  EXPECT_EQ(dispatch.Wait(1, exits, nullptr, 2000), 1);
}

TEST_F(DispatchTest, ProcessWideInstanceAndForwarders) {
  Dispatch* instance = Dispatch::Instance();
  EXPECT_EQ(instance, Dispatch::Instance());
  EXPECT_EQ(kt::Wait(0), 0);

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
  EXPECT_EQ(instance->CountRegisteredEvents(), 0u);
}

}  // namespace
