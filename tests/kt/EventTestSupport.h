// Helpers of the event, process event and dispatcher tests: descriptors that close themselves, a
// descriptor moved above FD_SETSIZE, and a callback made of a function.
#ifndef TESTS_KT_EVENTTESTSUPPORT_H
#define TESTS_KT_EVENTTESTSUPPORT_H

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <utility>

#include "kt/Dispatch.h"

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
    Close(0);
    Close(1);
  }
  bool ok() const { return fd[0] >= 0 && fd[1] >= 0; }
  void Close(int end) {
    if (fd[end] >= 0) close(fd[end]);
    fd[end] = -1;
  }
  bool Send() const { return write(fd[1], "x", 1) == 1; }
  bool Receive() const {
    char c;
    return read(fd[0], &c, 1) == 1;
  }
};

// A connected TCP pair over 127.0.0.1 (local sockets have no out-of-band data).
struct LoopbackTcpPair {
  int client = -1;
  int server = -1;
  LoopbackTcpPair() {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    sockaddr* name = reinterpret_cast<sockaddr*>(&address);
    if (listener >= 0 && bind(listener, name, length) == 0 && listen(listener, 1) == 0 &&
        getsockname(listener, name, &length) == 0) {
      client = socket(AF_INET, SOCK_STREAM, 0);
      if (client >= 0 && connect(client, name, length) == 0) {
        server = accept(listener, nullptr, nullptr);
      }
    }
    if (listener >= 0) close(listener);
  }
  ~LoopbackTcpPair() {
    if (client >= 0) close(client);
    if (server >= 0) close(server);
  }
  bool ok() const { return client >= 0 && server >= 0; }
};

// Moves fd to a number at or above FD_SETSIZE, raising the soft descriptor limit meanwhile when
// needed. Closes it and puts the limit back on destruction.
class HighDescriptor {
 public:
  explicit HighDescriptor(int& fd) : slot_(fd) {
    getrlimit(RLIMIT_NOFILE, &saved_);
    const rlim_t wanted = FD_SETSIZE + 64;
    if (saved_.rlim_cur < wanted) {
      rlimit raised = saved_;
      raised.rlim_cur = wanted;
      if (setrlimit(RLIMIT_NOFILE, &raised) != 0) return;
      restore_ = true;
    }
    const int high = fcntl(fd, F_DUPFD, FD_SETSIZE + 10);
    if (high < 0) return;
    close(fd);
    fd = high;
  }
  ~HighDescriptor() {
    if (ok()) {
      close(slot_);
      slot_ = -1;
    }
    if (restore_) setrlimit(RLIMIT_NOFILE, &saved_);
  }
  bool ok() const { return slot_ >= FD_SETSIZE; }

 private:
  int& slot_;
  rlimit saved_{};
  bool restore_ = false;
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

}  // namespace eventtest

#endif  // TESTS_KT_EVENTTESTSUPPORT_H
