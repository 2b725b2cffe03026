#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

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
using eventtest::LoopbackTcpPair;
using eventtest::NowMs;
using eventtest::SocketPair;

constexpr unsigned kInf = Event::Infinite;

// An event with every base behaviour; signalled as the test says.
class PlainEvent : public Event {
 public:
  bool signalled = false;
  bool Poll() const override { return signalled; }
};

// Polled, never signalled, always "due in" the given time; runs a hook on every MinEventTime call.
class HookedEvent : public Event {
 public:
  explicit HookedEvent(unsigned minTime) : minTime_(minTime) {}
  std::function<void(int)> onMinEventTime;
  bool Poll() const override { return false; }
  unsigned MinEventTime() const override {
    ++calls_;
    if (onMinEventTime) onMinEventTime(calls_);
    return minTime_;
  }
  unsigned MaxEventTime() const override { return minTime_; }

 private:
  unsigned minTime_;
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
    unsigned min;
    unsigned max;
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
    // Untouched unless the kind has descriptors.
    int read = 11, write = 12, except = 13;
    EXPECT_EQ(c.event.GetDescriptors(read, write, except), c.descriptors);
    EXPECT_EQ(read, c.read);
    EXPECT_EQ(write, c.write);
    EXPECT_EQ(except, c.except);
    EXPECT_EQ(c.event.Owner(), nullptr);
    EXPECT_EQ(c.event.GetCallback(), nullptr);
  }
  EXPECT_EQ(readEvent.GetHandle(), 5);

  int data = 0;
  plain.SetData(&data);
  EXPECT_EQ(plain.Data(), &data);
}

TEST(Event, StringFormJoinsAddressTimesAndType) {
  SocketReadEvent readEvent(SocketEvent::NullHandle);
  const std::string text = readEvent;
  EXPECT_TRUE(std::regex_match(text, std::regex("0x[0-9a-f]+, 0, 4294967295, SocketReadEvent")))
      << text;
  char address[32];
  snprintf(address, sizeof(address), "%p", static_cast<void*>(&readEvent));
  EXPECT_EQ(text.substr(0, text.find(',')), address);

  TimerEvent due(0);
  EXPECT_EQ(std::string(due).substr(std::string(due).find(',')), ", 0, 0, TimerEvent");
  TimerEvent never(kInf);
  EXPECT_EQ(std::string(never).substr(std::string(never).find(',')),
            ", 4294967295, 4294967295, TimerEvent");

  TimerEvent soon(250);
  std::smatch match;
  const std::string soonText = soon;
  ASSERT_TRUE(
      std::regex_match(soonText, match, std::regex("0x[0-9a-f]+, (\\d+), (\\d+), TimerEvent")));
  const unsigned min = std::stoul(match[1]);
  const unsigned max = std::stoul(match[2]);
  EXPECT_LE(min, 250u);
  EXPECT_GE(min, 150u);
  EXPECT_LE(max - min, 1u);  // read one after the other
}

TEST(Event, BoolOperatorsFollowPoll) {
  PlainEvent event;
  EXPECT_FALSE(static_cast<bool>(event));
  EXPECT_TRUE(!event);
  event.signalled = true;
  EXPECT_TRUE(static_cast<bool>(event));
  EXPECT_FALSE(!event);
}

TEST(AsyncEvent, SignalSetsStateAndNotifiesOnChangeOnly) {
  CountingDispatch dispatch;
  AsyncEvent event;
  ASSERT_TRUE(dispatch.RegisterEvent(&event, nullptr, false));
  const int afterRegistration = dispatch.updates;

  event.Signal(true);
  EXPECT_TRUE(event.Poll());
  EXPECT_EQ(event.MinEventTime(), 0u);
  EXPECT_EQ(event.MaxEventTime(), 0u);
  event.Signal(true);
  EXPECT_EQ(dispatch.updates, afterRegistration + 1);

  event.Signal(false);
  EXPECT_FALSE(event.Poll());
  EXPECT_EQ(event.MinEventTime(), kInf);
  EXPECT_EQ(dispatch.updates, afterRegistration + 2);
  event.Signal(false);
  EXPECT_EQ(dispatch.updates, afterRegistration + 2);
}

TEST(TimerEvent, ZeroIsAlwaysDueInfiniteNever) {
  TimerEvent zero(0);
  EXPECT_TRUE(zero.Poll());
  zero.Reset(true);
  zero.Reset(false);
  EXPECT_TRUE(zero.Poll());
  EXPECT_EQ(zero.Time(), 0u);

  TimerEvent never(kInf);
  EXPECT_FALSE(never.Poll());
  never.Reset(true);
  EXPECT_EQ(never.Time(), kInf);
  EXPECT_EQ(never.Interval(), kInf);
}

TEST(TimerEvent, CountsDownAndStaysDueUntilReset) {
  TimerEvent timer(40);
  EXPECT_FALSE(timer.Poll());
  EXPECT_LE(timer.Time(), 40u);
  EXPECT_GT(timer.Time(), 0u);
  kt::__os_Sleep(50);
  EXPECT_TRUE(timer.Poll());
  kt::__os_Sleep(20);
  EXPECT_TRUE(timer.Poll()) << "a due timer stays due";

  // A plain reset restarts the count from now.
  timer.Reset(false);
  EXPECT_FALSE(timer.Poll());
  EXPECT_GE(timer.Time(), 30u);
}

TEST(TimerEvent, PeriodicResetsMoveTheDuePointByWholeIntervals) {
  Timer clock(true);  // started no later than the event's own timer
  TimerEvent timer(100);
  kt::__os_Sleep(130);
  ASSERT_TRUE(timer.Poll());
  timer.Reset(true);
  timer.Reset(true);
  timer.Reset(true);
  // Due 400 ms after creation, however late the resets came.
  const unsigned left = timer.Time();
  const unsigned elapsed = clock.Time();
  EXPECT_GE(left + elapsed, 400u);
  EXPECT_LE(left + elapsed, 402u);
}

TEST(TimerEvent, SetIntervalKeepsTheTimerRunningAndNotifies) {
  CountingDispatch dispatch;
  TimerEvent timer(1000);
  ASSERT_TRUE(dispatch.RegisterEvent(&timer, nullptr, false));
  const int before = dispatch.updates;
  kt::__os_Sleep(30);
  timer.SetInterval(100);
  EXPECT_EQ(timer.Interval(), 100u);
  EXPECT_LE(timer.Time(), 70u);
  timer.Reset(true);
  timer.Reset(false);
  EXPECT_EQ(dispatch.updates, before + 3);
  EXPECT_TRUE(dispatch.UnregisterEvent(&timer));
}

TEST(SocketEvent, PollReportsReadinessOfTheDescriptor) {
  SocketPair pair;
  ASSERT_TRUE(pair.ok());
  SocketReadEvent readable(pair.fd[0]);
  SocketWriteEvent writable(pair.fd[0]);
  SocketExceptEvent exceptional(pair.fd[0]);
  EXPECT_FALSE(readable.Poll());
  EXPECT_TRUE(writable.Poll());
  EXPECT_FALSE(exceptional.Poll());
  ASSERT_TRUE(pair.Send());
  EXPECT_TRUE(readable.Poll());
  ASSERT_TRUE(pair.Receive());
  EXPECT_FALSE(readable.Poll());

  // A hung-up peer makes the socket readable (the read would return end of file).
  close(pair.fd[1]);
  pair.fd[1] = -1;
  EXPECT_TRUE(readable.Poll());
  EXPECT_FALSE(exceptional.Poll());

  // No handle, or a closed one: never signalled.
  EXPECT_FALSE(SocketReadEvent(SocketEvent::NullHandle).Poll());
  EXPECT_FALSE(SocketWriteEvent(SocketEvent::NullHandle).Poll());
  const int closed = dup(pair.fd[0]);
  close(closed);
  EXPECT_FALSE(SocketReadEvent(closed).Poll());
  EXPECT_FALSE(SocketReadEvent(closed).Wait(0));
}

TEST(SocketEvent, OutOfBandDataIsAnExceptionalCondition) {
  LoopbackTcpPair tcp;
  ASSERT_TRUE(tcp.ok());
  SocketExceptEvent exceptional(tcp.server);
  EXPECT_FALSE(exceptional.Poll());
  const char urgent = '!';
  ASSERT_EQ(send(tcp.client, &urgent, 1, MSG_OOB), 1);
  EXPECT_TRUE(exceptional.Wait(2000));
  EXPECT_TRUE(exceptional.Poll());
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
  Event* signalled[1] = {};
  EXPECT_EQ(Event::Wait(1, events, signalled, 0), 1);
  EXPECT_EQ(signalled[0], &readable);
}

TEST(EventWait, DescriptorEventWaitsForReadiness) {
  SocketPair pair;
  ASSERT_TRUE(pair.ok());
  SocketReadEvent readable(pair.fd[0]);
  long long start = NowMs();
  EXPECT_FALSE(readable.Wait(40));
  EXPECT_GE(NowMs() - start, 39);

  std::thread writer([&pair] {
    kt::__os_Sleep(30);
    pair.Send();
  });
  start = NowMs();
  EXPECT_TRUE(readable.Wait(kInf));
  writer.join();
  EXPECT_LT(NowMs() - start, 5000);
}

TEST(EventWait, PolledEventSleepsUntilItsEarliestTimeButAtLeastTenMs) {
  TimerEvent timer(60);
  long long start = NowMs();
  EXPECT_TRUE(timer.Wait(5000));
  long long took = NowMs() - start;
  EXPECT_GE(took, 55);
  EXPECT_LT(took, 2000);

  // 3 ms left: the wait still sleeps 10 ms.
  TimerEvent soon(3);
  start = NowMs();
  EXPECT_TRUE(soon.Wait(kInf));
  EXPECT_GE(NowMs() - start, 9);

  TimerEvent never(kInf);
  start = NowMs();
  EXPECT_FALSE(never.Wait(50));
  took = NowMs() - start;
  EXPECT_GE(took, 49);
  EXPECT_LT(took, 2000);
  EXPECT_FALSE(never.Wait(0));
}

TEST(EventWait, AsyncEventSignalledFromAnotherThread) {
  AsyncEvent event;
  std::thread signaller([&event] {
    kt::__os_Sleep(20);
    event.Signal(true);
  });
  // Unsignalled, the event gives no earliest time, so the wait sleeps out its timeout before
  // polling again.
  const long long start = NowMs();
  EXPECT_TRUE(event.Wait(150));
  EXPECT_GE(NowMs() - start, 100);
  signaller.join();
  EXPECT_TRUE(event.Wait(0));
}

TEST(EventWaitMany, ReportsSignalledEventsDescriptorsFirst) {
  SocketPair pair;
  ASSERT_TRUE(pair.ok());
  ASSERT_TRUE(pair.Send());
  SocketReadEvent readable(pair.fd[0]);
  AsyncEvent async;
  async.Signal(true);
  TimerEvent never(kInf);
  SocketReadEvent quiet(pair.fd[1]);

  Event* events[] = {&never, &async, nullptr, &quiet, &readable};
  Event* signalled[5] = {};
  EXPECT_EQ(Event::Wait(5, events, signalled, 1000), 2);
  EXPECT_EQ(signalled[0], &readable);
  EXPECT_EQ(signalled[1], &async);
  EXPECT_EQ(signalled[2], nullptr);
  EXPECT_EQ(Event::Wait(5, events, nullptr, 0), 2);

  // Polled events only: the first one due ends the wait.
  TimerEvent later(40);
  Event* polled[] = {&never, &later};
  const long long start = NowMs();
  EXPECT_EQ(Event::Wait(2, polled, signalled, 5000), 1);
  EXPECT_EQ(signalled[0], &later);
  EXPECT_GE(NowMs() - start, 35);
}

TEST(EventWaitMany, TimesOutWithNothingSignalled) {
  // Nothing to wait on at all: a finite timeout is slept once; 0 returns at once.
  Event* none[] = {nullptr, nullptr};
  long long start = NowMs();
  EXPECT_EQ(Event::Wait(2, none, nullptr, 0), 0);
  EXPECT_EQ(Event::Wait(0, nullptr, nullptr, 0), 0);
  EXPECT_LT(NowMs() - start, 50);
  start = NowMs();
  EXPECT_EQ(Event::Wait(0, nullptr, nullptr, 30), 0);
  EXPECT_GE(NowMs() - start, 29);

  TimerEvent never(kInf);
  SocketPair pair;
  ASSERT_TRUE(pair.ok());
  SocketReadEvent quiet(pair.fd[0]);
  Event* events[] = {&never, &quiet};
  start = NowMs();
  EXPECT_EQ(Event::Wait(2, events, nullptr, 60), 0);
  EXPECT_GE(NowMs() - start, 59);

  // Polled events with a timeout of 0 are polled once, without sleeping.
  Event* polled[] = {&never};
  start = NowMs();
  EXPECT_EQ(Event::Wait(1, polled, nullptr, 0), 0);
  EXPECT_LT(NowMs() - start, 50);
}

TEST(EventWaitMany, DescriptorSetsAreNotRebuiltBetweenRounds) {
  SocketPair pair;
  ASSERT_TRUE(pair.ok());
  SocketReadEvent readable(pair.fd[0]);
  // Makes every round short; from the second round on it makes the socket readable, after the
  // first round's wait has ended with nothing ready and so emptied the sets.
  HookedEvent ticker(10);
  ticker.onMinEventTime = [&pair](int call) {
    if (call == 2) pair.Send();
  };
  Event* events[] = {&readable, &ticker};
  EXPECT_EQ(Event::Wait(2, events, nullptr, 100), 0);
  EXPECT_TRUE(readable.Poll()) << "the data was there, but the emptied sets no longer watch it";

  // A fresh wait builds the sets again and sees it.
  Event* signalled[2] = {};
  EXPECT_EQ(Event::Wait(2, events, signalled, 100), 1);
  EXPECT_EQ(signalled[0], &readable);
}

}  // namespace
