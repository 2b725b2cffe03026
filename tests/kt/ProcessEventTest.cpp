#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "EventTestSupport.h"
#include "kt/Dispatch.h"
#include "kt/ProcessEvent.h"

namespace {

using eventtest::FunctionCallback;

// A pid that is certainly not a child of the test process.
constexpr int kStranger = 2147480001;

// A child that exits at once, or one that runs until killed.
pid_t ForkChild(bool exitAtOnce) {
  const pid_t pid = fork();
  if (pid == 0) {
    if (!exitAtOnce) pause();
    _exit(0);
  }
  return pid;
}

// A child that exits once the returned descriptor is closed: until then any poll of it finds it
// running, however the processes are scheduled.
pid_t ForkHeldChild(int* release) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[1]);
    char byte;
    while (read(fds[0], &byte, 1) < 0 && errno == EINTR) {
    }
    _exit(0);
  }
  close(fds[0]);
  *release = fds[1];
  return pid;
}

// Blocks until the child has ended, leaving it unreaped.
bool AwaitExitWithoutReaping(pid_t pid) {
  siginfo_t info{};
  return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) == 0;
}

bool Reaped(pid_t pid) { return waitpid(pid, nullptr, WNOHANG) == -1 && errno == ECHILD; }

// Every test ends with no process event alive and no child left, running or unreaped. The fixture
// also puts back the signal mask and SIGCHLD action that Dispatch::Wait(Event*) changes.
class ProcessEventTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sigprocmask(SIG_SETMASK, nullptr, &savedMask_);
    sigaction(SIGCHLD, nullptr, &savedAction_);
  }
  void TearDown() override {
    sigaction(SIGCHLD, &savedAction_, nullptr);
    sigprocmask(SIG_SETMASK, &savedMask_, nullptr);
    EXPECT_TRUE(ProcessEvent::instances_.empty());
    EXPECT_TRUE(Reaped(-1)) << "a child was left behind";
  }
  sigset_t savedMask_;
  struct sigaction savedAction_;
};

TEST_F(ProcessEventTest, RegistryTracksTheLatestEventPerPid) {
  ProcessEvent* first = new ProcessEvent(kStranger);
  EXPECT_EQ(ProcessEvent::instances_.at(kStranger), first);
  {
    ProcessEvent second(kStranger);
    ProcessEvent other(kStranger + 1);
    EXPECT_EQ(ProcessEvent::instances_.at(kStranger), &second);
    EXPECT_EQ(ProcessEvent::instances_.size(), 2u);
  }
  // Destroying the later one removed the entry, though the earlier one still lives.
  EXPECT_EQ(ProcessEvent::instances_.count(kStranger), 0u);
  ProcessEvent third(kStranger);
  delete first;  // removes the entry that points to third
  EXPECT_EQ(ProcessEvent::instances_.count(kStranger), 0u);
}

TEST_F(ProcessEventTest, PollReapsAnEndedChildAndStaysSignalled) {
  const pid_t running = ForkChild(false);
  const pid_t ended = ForkChild(true);
  ASSERT_GT(running, 0);
  ASSERT_GT(ended, 0);
  {
    ProcessEvent runningEvent(running);
    ProcessEvent endedEvent(ended);
    EXPECT_FALSE(runningEvent.Poll());
    EXPECT_EQ(runningEvent.MinEventTime(), Event::Infinite);
    EXPECT_FALSE(runningEvent.Wait(30));

    ASSERT_TRUE(AwaitExitWithoutReaping(ended));
    EXPECT_TRUE(endedEvent.Poll());
    EXPECT_TRUE(Reaped(ended));
    EXPECT_TRUE(endedEvent.Poll());
    EXPECT_EQ(endedEvent.MaxEventTime(), 0u);
  }
  kill(running, SIGKILL);
  EXPECT_EQ(waitpid(running, nullptr, 0), running);
}

TEST_F(ProcessEventTest, RegisteredEventWaitsIdleUntilOnSigChld) {
  // Registering polls the child, which reaps it if it has already ended: it ends only afterwards.
  int release = -1;
  const pid_t pid = ForkHeldChild(&release);
  ASSERT_GT(pid, 0);
  Dispatch dispatch;
  ProcessEvent event(pid);
  int calls = 0;
  FunctionCallback callback([&calls](Dispatch* d, Event* e) {
    ++calls;
    d->UnregisterEvent(e);  // it would stay signalled
  });
  ASSERT_TRUE(dispatch.RegisterEvent(&event, &callback, false));
  close(release);
  ASSERT_TRUE(AwaitExitWithoutReaping(pid));
  // The child has ended, but nobody told the dispatcher.
  EXPECT_EQ(dispatch.Wait(30), 0);
  EXPECT_EQ(calls, 0);

  ProcessEvent::OnSigChld(SIGCHLD);
  EXPECT_TRUE(Reaped(pid));
  dispatch.Wait(500);
  EXPECT_EQ(calls, 1);
}

TEST_F(ProcessEventTest, DispatchWaitsForTheChildWithSigChldBlocked) {
  const pid_t pid = ForkChild(true);
  ASSERT_GT(pid, 0);
  Dispatch dispatch;
  ProcessEvent event(pid);
  EXPECT_TRUE(dispatch.Wait(&event, 300));
  EXPECT_TRUE(Reaped(pid));
  sigset_t mask;
  sigprocmask(SIG_SETMASK, nullptr, &mask);
  EXPECT_EQ(sigismember(&mask, SIGCHLD), 1);
  struct sigaction action;
  sigaction(SIGCHLD, nullptr, &action);
  EXPECT_NE(action.sa_flags & SA_SIGINFO, 0);

  const pid_t running = ForkChild(false);
  ASSERT_GT(running, 0);
  {
    ProcessEvent runningEvent(running);
    EXPECT_FALSE(dispatch.Wait(&runningEvent, 40));
  }
  kill(running, SIGKILL);
  EXPECT_EQ(waitpid(running, nullptr, 0), running);
}

}  // namespace
