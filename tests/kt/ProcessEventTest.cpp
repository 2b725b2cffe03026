#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "EventTestSupport.h"
#include "kt/Dispatch.h"
#include "kt/ProcessEvent.h"

namespace {

using eventtest::ForkExiting;
using eventtest::FunctionCallback;
using eventtest::NoChildrenLeft;
using eventtest::NowMs;

// A pid that is certainly not a child of the test process.
constexpr int kStranger = 2147480001;

class ProcessEventTest : public ::testing::Test {
 protected:
  void TearDown() override {
    EXPECT_TRUE(ProcessEvent::instances_.empty());
    EXPECT_TRUE(NoChildrenLeft());
  }
};

// Blocks until the child has ended, leaving it unreaped.
bool AwaitExitWithoutReaping(pid_t pid) {
  siginfo_t info{};
  return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) == 0;
}

TEST_F(ProcessEventTest, RegistryTracksTheLatestEventPerPid) {
  {
    ProcessEvent first(kStranger);
    EXPECT_EQ(ProcessEvent::instances_.at(kStranger), &first);
    {
      ProcessEvent second(kStranger);
      ProcessEvent other(kStranger + 1);
      EXPECT_EQ(ProcessEvent::instances_.at(kStranger), &second);
      EXPECT_EQ(ProcessEvent::instances_.size(), 2u);
    }
    // Destroying the later one removed the entry, though the earlier one still lives.
    EXPECT_EQ(ProcessEvent::instances_.count(kStranger), 0u);
  }
  {
    ProcessEvent* first = new ProcessEvent(kStranger);
    ProcessEvent second(kStranger);
    delete first;  // removes the entry that points to second
    EXPECT_EQ(ProcessEvent::instances_.count(kStranger), 0u);
    EXPECT_EQ(second.GetPid(), kStranger);
  }
}

TEST_F(ProcessEventTest, PollReapsTheChildAndStaysSignalled) {
  const pid_t pid = ForkExiting(3);
  ASSERT_GT(pid, 0);
  ProcessEvent event(pid);
  ASSERT_TRUE(AwaitExitWithoutReaping(pid));
  EXPECT_TRUE(event.Poll());
  EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1) << "the child was not reaped";
  EXPECT_EQ(errno, ECHILD);
  EXPECT_TRUE(event.Poll());
  EXPECT_EQ(event.MinEventTime(), 0u);
  EXPECT_EQ(event.MaxEventTime(), 0u);
}

TEST_F(ProcessEventTest, RunningChildIsNotSignalled) {
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    pause();
    _exit(0);
  }
  {
    ProcessEvent event(pid);
    EXPECT_FALSE(event.Poll());
    EXPECT_EQ(event.MinEventTime(), Event::Infinite);
    EXPECT_FALSE(event.Wait(30));
  }
  kill(pid, SIGKILL);
  EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
}

TEST_F(ProcessEventTest, EventWaitReapsTheChild) {
  const pid_t pid = ForkExiting(0);
  ASSERT_GT(pid, 0);
  ProcessEvent event(pid);
  // Polled without an earliest time, the wait sleeps out its timeout and then finds the child.
  const long long start = NowMs();
  EXPECT_TRUE(event.Wait(200));
  EXPECT_LT(NowMs() - start, 3000);
  EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);
}

TEST_F(ProcessEventTest, RegisteredEventWaitsIdleUntilOnSigChld) {
  const pid_t pid = ForkExiting(0);
  ASSERT_GT(pid, 0);
  Dispatch dispatch;
  ProcessEvent event(pid);
  int calls = 0;
  FunctionCallback callback([&calls](Dispatch* d, Event* e) {
    ++calls;
    d->UnregisterEvent(e);  // it stays signalled
  });
  ASSERT_TRUE(dispatch.RegisterEvent(&event, &callback, false));
  ASSERT_TRUE(AwaitExitWithoutReaping(pid));

  // The child has ended, but nobody told the dispatcher: the event is idle.
  EXPECT_EQ(dispatch.Wait(30), 0);
  EXPECT_EQ(calls, 0);

  ProcessEvent::OnSigChld(SIGCHLD);
  EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1) << "OnSigChld reaps through Poll";
  dispatch.Wait(500);
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(dispatch.IsEventRegistered(&event));
}

// Dispatch::Wait(Event*) changes the thread's signal mask and the SIGCHLD action; this fixture
// puts both back.
class DispatchWaitProcessTest : public ProcessEventTest {
 protected:
  void SetUp() override {
    sigprocmask(SIG_SETMASK, nullptr, &savedMask_);
    sigaction(SIGCHLD, nullptr, &savedAction_);
  }
  void TearDown() override {
    sigaction(SIGCHLD, &savedAction_, nullptr);
    sigprocmask(SIG_SETMASK, &savedMask_, nullptr);
    ProcessEventTest::TearDown();
  }
  sigset_t savedMask_;
  struct sigaction savedAction_;
};

TEST_F(DispatchWaitProcessTest, WaitsForTheChildWithSigChldBlocked) {
  const pid_t pid = ForkExiting(0);
  ASSERT_GT(pid, 0);
  Dispatch dispatch;
  ProcessEvent event(pid);
  EXPECT_TRUE(dispatch.Wait(&event, 300));
  EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);

  sigset_t mask;
  sigprocmask(SIG_SETMASK, nullptr, &mask);
  EXPECT_EQ(sigismember(&mask, SIGCHLD), 1);
  struct sigaction action;
  sigaction(SIGCHLD, nullptr, &action);
  EXPECT_NE(action.sa_flags & SA_SIGINFO, 0);
  EXPECT_EQ(dispatch.CountRegisteredEvents(), 0u);

  // A child that does not end: time-out.
  const pid_t sleeper = fork();
  ASSERT_GE(sleeper, 0);
  if (sleeper == 0) {
    pause();
    _exit(0);
  }
  {
    ProcessEvent running(sleeper);
    EXPECT_FALSE(dispatch.Wait(&running, 40));
  }
  kill(sleeper, SIGKILL);
  EXPECT_EQ(waitpid(sleeper, nullptr, 0), sleeper);
}

}  // namespace
