#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <regex>
#include <string>
#include <thread>

#include "EventTestSupport.h"
#include "kt/Dispatch.h"
#include "kt/Event.h"
#include "kt/ProcessEvent.h"
#include "kt/Utility.h"

namespace {

using eventtest::HighDescriptor;
using eventtest::NowMs;
using eventtest::SocketPair;

constexpr unsigned kInf = Event::Infinite;

// An event with every base behaviour; signalled as the test says.
class PlainEvent : public Event {
 public:
  bool signalled = false;
  bool Poll() const override { return signalled; }
};

// Never signalled, due in a fixed time; runs a hook on every MinEventTime call.
class HookedEvent : public Event {
 public:
  std::function<void(int)> onMinEventTime;
  bool Poll() const override { return false; }
  unsigned MinEventTime() const override {
    if (onMinEventTime) onMinEventTime(++calls_);
    return 10;
  }
  unsigned MaxEventTime() const override { return 10; }

 private:
  mutable int calls_ = 0;
};

// Counts the notifications events send to their dispatcher.
class CountingDispatch : public Dispatch {
 public:
  int updates = 0;
  void UpdateEvent(Event* event, bool add) override {
    if (add) ++updates;
    Dispatch::UpdateEvent(event, add);
  }
};

TEST(Event, KindsReportTypeTimesAndDescriptors) {
  PlainEvent plain;
  AsyncEvent async;
  TimerEvent timer(kInf);
  ProcessEvent process(2147480000);  // not a child of ours: polls true at once
  SocketReadEvent readEvent(5);
  SocketWriteEvent writeEvent(6);
  SocketExceptEvent exceptEvent(7);
  struct Case {
    const Event& event;
    const char* type;
    unsigned min, max;
    bool descriptors;
    int read, write, except;
  };
  const Case cases[] = {
      {plain, "Event", 0, kInf, false, 11, 12, 13},
      {async, "AsyncEvent", kInf, kInf, false, 11, 12, 13},
      {timer, "TimerEvent", kInf, kInf, false, 11, 12, 13},
      {process, "ProcessEvent", 0, 0, false, 11, 12, 13},
      {readEvent, "SocketReadEvent", 0, kInf, true, 5, -1, -1},
      {writeEvent, "SocketWriteEvent", 0, kInf, true, -1, 6, -1},
      {exceptEvent, "SocketExceptEvent", 0, kInf, true, -1, -1, 7},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.type);
    EXPECT_EQ(c.event.Type(), c.type);
    EXPECT_EQ(c.event.MinEventTime(), c.min);
    EXPECT_EQ(c.event.MaxEventTime(), c.max);
    int read = 11, write = 12, except = 13;  // untouched by kinds without descriptors
    EXPECT_EQ(c.event.GetDescriptors(read, write, except), c.descriptors);
    EXPECT_EQ(read, c.read);
    EXPECT_EQ(write, c.write);
    EXPECT_EQ(except, c.except);
    EXPECT_EQ(c.event.Owner(), nullptr);
  }
  EXPECT_TRUE(!plain);
  plain.signalled = true;
  EXPECT_TRUE(static_cast<bool>(plain));
}

TEST(Event, StringFormJoinsAddressTimesAndType) {
  SocketReadEvent readEvent(SocketEvent::NullHandle);
  const std::string text = readEvent;
  char address[32];
  snprintf(address, sizeof(address), "%p", static_cast<void*>(&readEvent));
  EXPECT_EQ(text, std::string(address) + ", 0, 4294967295, SocketReadEvent");

  // The earliest and latest times of a timer are both its time left, read one after the other
  // (a busy machine may pause between the two reads, never for seconds).
  TimerEvent soon(100000);
  const std::string soonText = soon;
  std::smatch match;
  ASSERT_TRUE(
      std::regex_match(soonText, match, std::regex("0x[0-9a-f]+, (\\d+), (\\d+), TimerEvent")));
  EXPECT_LE(std::stoul(match[1]), 100000u);
  EXPECT_GE(std::stoul(match[1]), 90000u);
  EXPECT_LE(std::stoul(match[2]), std::stoul(match[1]));
}

TEST(AsyncEvent, SignalNotifiesTheDispatcherOnChangesOnly) {
  CountingDispatch dispatch;
  AsyncEvent event;
  ASSERT_TRUE(dispatch.RegisterEvent(&event, nullptr, false));
  const int registered = dispatch.updates;
  event.Signal(true);
  event.Signal(true);
  EXPECT_TRUE(event.Poll());
  EXPECT_EQ(event.MinEventTime(), 0u);
  EXPECT_EQ(dispatch.updates, registered + 1);
  event.Signal(false);
  event.Signal(false);
  EXPECT_FALSE(event.Poll());
  EXPECT_EQ(dispatch.updates, registered + 2);
}

TEST(TimerEvent, CountsDownAndStaysDueUntilReset) {
  TimerEvent zero(0);
  zero.Reset(false);
  EXPECT_TRUE(zero.Poll());
  TimerEvent never(kInf);
  never.Reset(true);
  EXPECT_EQ(never.Time(), kInf);

  TimerEvent timer(40);
  EXPECT_GT(timer.Time(), 0u);
  EXPECT_LE(timer.Time(), 40u);
  kt::__os_Sleep(60);
  EXPECT_TRUE(timer.Poll()) << "a due timer stays due";
  {
    // Restarts from now: however long the machine pauses between the reset and the reads, the
    // time left and the time since the reset add up to the interval.
    Timer sinceReset(true);
    timer.Reset(false);
    const unsigned left = timer.Time();
    EXPECT_GE(left + sinceReset.Time(), 39u);
  }

  // A new interval applies to the running timer.
  CountingDispatch dispatch;
  ASSERT_TRUE(dispatch.RegisterEvent(&timer, nullptr, false));
  const int before = dispatch.updates;
  kt::__os_Sleep(20);
  timer.SetInterval(1000);
  EXPECT_EQ(timer.Interval(), 1000u);
  EXPECT_LE(timer.Time(), 980u);
  timer.Reset(true);
  EXPECT_EQ(dispatch.updates, before + 2);
  EXPECT_TRUE(dispatch.UnregisterEvent(&timer));
}

TEST(TimerEvent, PeriodicResetsMoveTheDuePointByWholeIntervals) {
  Timer olderClock(true);  // started no later than the event's own timer
  TimerEvent timer(100);
  Timer youngerClock(true);  // started no earlier
  kt::__os_Sleep(130);
  ASSERT_TRUE(timer.Poll());
  timer.Reset(true);
  timer.Reset(true);
  timer.Reset(true);
  // Due 400 ms after creation, however late the resets came. The timer's age lies between the two
  // clocks: the younger one is read before the timer, the older one after it.
  const unsigned youngerAge = youngerClock.Time();
  const unsigned left = timer.Time();
  const unsigned olderAge = olderClock.Time();
  EXPECT_GE(left + olderAge, 400u);
  if (left > 0) {  // not yet due again (a very busy machine may have slept past it)
    EXPECT_LE(left + youngerAge, 401u);
  }
}

TEST(SocketEvent, PollReportsReadinessOfTheDescriptor) {
  SocketPair pair;
  ASSERT_TRUE(pair.ok());
  SocketReadEvent readable(pair.fd[0]);
  SocketWriteEvent writable(pair.fd[0]);
  SocketExceptEvent exceptional(pair.fd[0]);
  EXPECT_FALSE(readable.Poll());
  EXPECT_TRUE(writable.Poll());
  ASSERT_TRUE(pair.Send());
  EXPECT_TRUE(readable.Poll());
  ASSERT_TRUE(pair.Receive());
  EXPECT_FALSE(readable.Poll());
  // A hung-up peer makes the socket readable (the read would return end of file).
  pair.Close(1);
  EXPECT_TRUE(readable.Poll());
  EXPECT_FALSE(exceptional.Poll());

  // No handle, or a closed one: never signalled.
  EXPECT_FALSE(SocketWriteEvent(SocketEvent::NullHandle).Poll());
  const int closed = dup(pair.fd[0]);
  close(closed);
  EXPECT_FALSE(SocketReadEvent(closed).Poll());
  EXPECT_FALSE(SocketReadEvent(closed).Wait(0));

  // Out-of-band data (TCP over loopback) is the exceptional condition.
  eventtest::LoopbackTcpPair tcp;
  ASSERT_TRUE(tcp.ok());
  SocketExceptEvent urgent(tcp.server);
  EXPECT_FALSE(urgent.Poll());
  ASSERT_EQ(send(tcp.client, "!", 1, MSG_OOB), 1);
  EXPECT_TRUE(urgent.Wait(2000));
}

TEST(SocketEvent, DescriptorsAboveFdSetSizeWork) {
  SocketPair pair;
  ASSERT_TRUE(pair.ok());
  HighDescriptor high(pair.fd[0]);
  if (!high.ok()) GTEST_SKIP() << "cannot open a descriptor at or above FD_SETSIZE";
  SocketReadEvent readable(pair.fd[0]);
  EXPECT_FALSE(readable.Poll());
  EXPECT_FALSE(readable.Wait(20));
  ASSERT_TRUE(pair.Send());
  EXPECT_TRUE(readable.Poll());
  EXPECT_TRUE(readable.Wait(0));
  Event* events[] = {&readable};
  EXPECT_EQ(Event::Wait(1, events, nullptr, 0), 1);
}

TEST(EventWait, OneEventByDescriptorsOrByPolling) {
  SocketPair pair;
  ASSERT_TRUE(pair.ok());
  SocketReadEvent readable(pair.fd[0]);
  long long start = NowMs();
  EXPECT_FALSE(readable.Wait(40));
  EXPECT_GE(NowMs() - start, 38);
  std::thread writer([&pair] {
    kt::__os_Sleep(30);
    pair.Send();
  });
  EXPECT_TRUE(readable.Wait(kInf));
  writer.join();

  // Polled: sleeps until the earliest time, but never less than 10 ms.
  start = NowMs();
  TimerEvent timer(60);
  EXPECT_TRUE(timer.Wait(5000));
  EXPECT_GE(NowMs() - start, 58);
  EXPECT_LT(NowMs() - start, 5000);
  TimerEvent soon(3);
  start = NowMs();
  EXPECT_TRUE(soon.Wait(kInf));
  EXPECT_GE(NowMs() - start, 9);
  TimerEvent never(kInf);
  start = NowMs();
  EXPECT_FALSE(never.Wait(50));
  EXPECT_GE(NowMs() - start, 49);
}

TEST(EventWait, AsyncEventSignalledFromAnotherThread) {
  // Unsignalled, the event has no earliest time: the wait sleeps out its timeout, then polls.
  AsyncEvent event;
  const long long start = NowMs();
  EXPECT_FALSE(event.Wait(100));
  EXPECT_GE(NowMs() - start, 99);
  // A signal from another thread, before the wait or during its sleep, is seen by its last poll.
  std::thread signaller([&event] { event.Signal(true); });
  EXPECT_TRUE(event.Wait(2000));
  signaller.join();
}

TEST(EventWaitMany, ReportsSignalledEventsDescriptorsFirst) {
  SocketPair pair;
  ASSERT_TRUE(pair.ok());
  ASSERT_TRUE(pair.Send());
  SocketReadEvent readable(pair.fd[0]);
  SocketReadEvent quiet(pair.fd[1]);
  AsyncEvent async;
  async.Signal(true);
  TimerEvent never(kInf);
  Event* events[] = {&never, &async, nullptr, &quiet, &readable};
  Event* signalled[5] = {};
  EXPECT_EQ(Event::Wait(5, events, signalled, 1000), 2);
  EXPECT_EQ(signalled[0], &readable);
  EXPECT_EQ(signalled[1], &async);

  // Polled events only: the first one due ends the wait.
  const long long start = NowMs();
  TimerEvent later(40);
  Event* polled[] = {&never, &later};
  EXPECT_EQ(Event::Wait(2, polled, signalled, 5000), 1);
  EXPECT_EQ(signalled[0], &later);
  EXPECT_GE(NowMs() - start, 38);
}

TEST(EventWaitMany, TimesOutWithNothingSignalled) {
  // Nothing to wait on: a finite timeout is slept once, 0 returns at once.
  Event* none[] = {nullptr};
  long long start = NowMs();
  EXPECT_EQ(Event::Wait(1, none, nullptr, 0), 0);
  EXPECT_LT(NowMs() - start, 1000);
  EXPECT_EQ(Event::Wait(0, nullptr, nullptr, 30), 0);
  EXPECT_GE(NowMs() - start, 29);

  SocketPair pair;
  ASSERT_TRUE(pair.ok());
  SocketReadEvent quiet(pair.fd[0]);
  TimerEvent never(kInf);
  Event* events[] = {&never, &quiet};
  start = NowMs();
  EXPECT_EQ(Event::Wait(2, events, nullptr, 60), 0);
  EXPECT_GE(NowMs() - start, 59);
  // Polled events with a timeout of 0 are polled once, without sleeping.
  start = NowMs();
  EXPECT_EQ(Event::Wait(1, events, nullptr, 0), 0);
  EXPECT_LT(NowMs() - start, 1000);
}

TEST(EventWaitMany, DescriptorSetsAreNotRebuiltBetweenRounds) {
  SocketPair pair;
  ASSERT_TRUE(pair.ok());
  SocketReadEvent readable(pair.fd[0]);
  // Keeps rounds short; in the second round it makes the socket readable, after the first round's
  // wait ended with nothing ready and so emptied the sets.
  HookedEvent ticker;
  ticker.onMinEventTime = [&pair](int call) {
    if (call == 2) pair.Send();
  };
  Event* events[] = {&readable, &ticker};
  EXPECT_EQ(Event::Wait(2, events, nullptr, 100), 0);
  EXPECT_TRUE(readable.Poll()) << "the data was there, but the emptied sets no longer watch it";
  Event* signalled[2] = {};
  EXPECT_EQ(Event::Wait(2, events, signalled, 100), 1) << "a fresh wait builds the sets again";
  EXPECT_EQ(signalled[0], &readable);
}

}  // namespace
