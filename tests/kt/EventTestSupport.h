// Helpers shared by the event, process event and dispatcher tests: descriptor pairs that close
// themselves, a descriptor moved above FD_SETSIZE, and a callback made of a function.
#ifndef TESTS_KT_EVENTTESTSUPPORT_H
#define TESTS_KT_EVENTTESTSUPPORT_H

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <utility>

#include "kt/Dispatch.h"
#include "kt/ProcessEvent.h"

namespace eventtest {

// Milliseconds on a monotonic clock, for measuring waits.
inline long long NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// A connected pair of local stream sockets, closed on destruction.
struct SocketPair {
  int fd[2] = {-1, -1};
  SocketPair() {
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fd) != 0) fd[0] = fd[1] = -1;
  }
  ~SocketPair() {
    for (int f : fd) {
      if (f >= 0) close(f);
    }
  }
  bool ok() const { return fd[0] >= 0 && fd[1] >= 0; }
  bool Send(char c = 'x') const { return write(fd[1], &c, 1) == 1; }
  bool Receive() const {
    char c;
    return read(fd[0], &c, 1) == 1;
  }
};

// A connected TCP pair over 127.0.0.1 (for out-of-band data, which local sockets lack).
struct LoopbackTcpPair {
  int client = -1;
  int server = -1;
  LoopbackTcpPair() {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    if (listener < 0) return;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        listen(listener, 1) == 0 &&
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
      client = socket(AF_INET, SOCK_STREAM, 0);
      if (client >= 0 &&
          connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
        server = accept(listener, nullptr, nullptr);
      }
    }
    close(listener);
  }
  ~LoopbackTcpPair() {
    if (client >= 0) close(client);
    if (server >= 0) close(server);
  }
  bool ok() const { return client >= 0 && server >= 0; }
};

// Moves fd to a descriptor number at or above FD_SETSIZE (raising the soft descriptor limit for
// the duration when needed). The old number is closed; the new one is closed on destruction.
class HighDescriptor {
 public:
  explicit HighDescriptor(int& fd) {
    getrlimit(RLIMIT_NOFILE, &saved_);
    const rlim_t wanted = FD_SETSIZE + 64;
    if (saved_.rlim_cur < wanted) {
      if (saved_.rlim_max != RLIM_INFINITY && saved_.rlim_max < wanted) return;
      rlimit raised = saved_;
      raised.rlim_cur = wanted;
      if (setrlimit(RLIMIT_NOFILE, &raised) != 0) return;
      restore_ = true;
    }
    const int high = fcntl(fd, F_DUPFD, FD_SETSIZE + 10);
    if (high < 0) return;
    close(fd);
    fd = high;
    fd_ = high;
    slot_ = &fd;
  }
  ~HighDescriptor() {
    if (fd_ >= 0) {
      close(fd_);
      *slot_ = -1;
    }
    if (restore_) setrlimit(RLIMIT_NOFILE, &saved_);
  }
  bool ok() const { return fd_ >= FD_SETSIZE; }

 private:
  rlimit saved_{};
  bool restore_ = false;
  int fd_ = -1;
  int* slot_ = nullptr;
};

// A callback that runs a function and counts its own destruction.
class FunctionCallback : public Callback {
 public:
  using Function = std::function<void(Dispatch*, Event*)>;
  explicit FunctionCallback(Function function, int* destroyed = nullptr)
      : function_(std::move(function)), destroyed_(destroyed) {}
  ~FunctionCallback() override {
    if (destroyed_ != nullptr) ++*destroyed_;
  }
  void OnEvent(Dispatch* dispatcher, Event* event) override {
    if (function_) function_(dispatcher, event);
  }

 private:
  Function function_;
  int* destroyed_;
};

// Forks a child that exits at once with the given status.
inline pid_t ForkExiting(int status) {
  const pid_t pid = fork();
  if (pid == 0) _exit(status);
  return pid;
}

// True when the calling process has no children left (none running, none unreaped).
inline bool NoChildrenLeft() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

}  // namespace eventtest

#endif  // TESTS_KT_EVENTTESTSUPPORT_H
