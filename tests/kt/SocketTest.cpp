// Socket objects over loopback and local-domain sockets only.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <vector>

#include "kt/Socket.h"

namespace {

// The numeric port a socket is bound to.
std::string PortOf(const Socket& socket) {
  std::string host;
  std::string service;
  EXPECT_TRUE(socket.GetSockName(host, service, true));
  return service;
}

// A connected TCP pair over loopback: server side accepted from a listener.
struct TcpPair {
  Socket listener;
  Socket client;
  Socket server;

  TcpPair() {
    EXPECT_TRUE(listener.Listen("tcp$127.0.0.1:0", 4, true));
    EXPECT_TRUE(client.Connect("127.0.0.1", PortOf(listener), SOCK_STREAM));
    EXPECT_TRUE(listener.Accept(server));
  }
};

bool PathExists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

bool IsNonBlocking(int handle) { return (fcntl(handle, F_GETFL) & O_NONBLOCK) != 0; }

}  // namespace

TEST(Socket, TcpOverLoopback) {
  TcpPair pair;
  EXPECT_TRUE(pair.client.IsTcp());
  EXPECT_FALSE(pair.client.IsUdp());
  EXPECT_EQ(pair.server.Family(), AF_INET);
  EXPECT_EQ(pair.server.SockType(), SOCK_STREAM);
  EXPECT_EQ(pair.client.GetPeerString(true), "127.0.0.1 " + PortOf(pair.listener));
  EXPECT_EQ(pair.server.GetPeerString(true), pair.client.GetSockString(true));

  EXPECT_EQ(pair.client.Send("hello", 5), 5);
  char buffer[16] = {};
  EXPECT_EQ(pair.server.Recv(buffer, sizeof(buffer)), 5);
  EXPECT_STREQ(buffer, "hello");

  EXPECT_TRUE(pair.client.Shutdown(SHUT_WR));
  EXPECT_EQ(pair.server.Select(true, false, false, 5000) & 1, 1);
  EXPECT_EQ(pair.server.Recv(buffer, sizeof(buffer)), 0);
  EXPECT_EQ(pair.server.GetSocketError(), Socket::Success);

  EXPECT_TRUE(pair.server.Close());
  EXPECT_FALSE(pair.server.IsOpen());
  EXPECT_TRUE(!pair.server);
  EXPECT_EQ(pair.server.Family(), 0);
  EXPECT_TRUE(pair.server.Close());  // closing a closed socket is fine
  EXPECT_EQ(pair.server.GetSockString(true), "");
}

TEST(Socket, UdpByNameAndAddress) {
  Socket receiver;
  ASSERT_TRUE(receiver.Bind("udp$127.0.0.1:0"));
  EXPECT_TRUE(receiver.IsUdp());
  Socket sender;
  ASSERT_TRUE(sender.Open(AF_INET, SOCK_DGRAM));
  EXPECT_EQ(sender.SendTo("ping", 4, "127.0.0.1", PortOf(receiver)), 4);

  char buffer[8] = {};
  std::string host;
  std::string service;
  EXPECT_EQ(receiver.RecvFrom(buffer, sizeof(buffer), host, service), 4);
  EXPECT_EQ(std::string(buffer, 4), "ping");
  EXPECT_EQ(host, "127.0.0.1");

  // Reply to the address the datagram came from.
  Socket::Address from;
  EXPECT_EQ(sender.SendTo("pong", 4, "127.0.0.1", PortOf(receiver)), 4);
  EXPECT_EQ(receiver.RecvFrom(buffer, sizeof(buffer), from), 4);
  EXPECT_EQ(from.Family(), AF_INET);
  EXPECT_EQ(receiver.SendTo("back", 4, from), 4);
  EXPECT_EQ(sender.Recv(buffer, sizeof(buffer)), 4);
  EXPECT_EQ(std::string(buffer, 4), "back");

  EXPECT_EQ(sender.SendTo("x", 1, "127.0.0.1", "no-such-service"), -1);
}

TEST(Socket, OptionsAndDscp) {
  Socket socket;
  ASSERT_TRUE(socket.Open(AF_INET, SOCK_DGRAM));
  ASSERT_TRUE(socket.SetOption(SO_REUSEADDR, 1));
  int value = 0;
  ASSERT_TRUE(socket.GetOption(SO_REUSEADDR, value));
  EXPECT_NE(value, 0);
  if (socket.SetDscp(Socket::GetDscpByName("EF"))) {
    int dscp = 0;
    ASSERT_TRUE(socket.GetDscp(dscp));
    EXPECT_EQ(dscp, 46);
  }
  EXPECT_TRUE(socket.IOCtl(FIONBIO, 1));
  EXPECT_TRUE(IsNonBlocking(socket.GetSocketHandle()));
  EXPECT_TRUE(socket.SetCloseOnExec());
  EXPECT_EQ(fcntl(socket.GetSocketHandle(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);

  Socket closed;
  errno = 0;
  EXPECT_FALSE(closed.SetOption(SO_REUSEADDR, 1));
  EXPECT_EQ(Socket::GetLastError(), Socket::InvalidHandle);
  EXPECT_EQ(closed.GetSocketError(), Socket::InvalidHandle);
}

TEST(Socket, NonBlockingIsOnlyEverTurnedOn) {
  Socket socket;
  EXPECT_TRUE(socket.SetNonBlocking(true));  // remembered while closed
  ASSERT_TRUE(socket.Open(AF_INET, SOCK_STREAM));
  EXPECT_TRUE(IsNonBlocking(socket.GetSocketHandle()));
  EXPECT_TRUE(socket.SetNonBlocking(false));
  EXPECT_TRUE(IsNonBlocking(socket.GetSocketHandle()));

  Socket blocking;
  ASSERT_TRUE(blocking.Open(AF_INET, SOCK_STREAM));
  EXPECT_FALSE(IsNonBlocking(blocking.GetSocketHandle()));
  EXPECT_TRUE(blocking.SetNonBlocking(false));
  EXPECT_TRUE(IsNonBlocking(blocking.GetSocketHandle()));
}

TEST(Socket, NonBlockingConnectCompletesThroughSelect) {
  Socket listener;
  ASSERT_TRUE(listener.Listen("127.0.0.1", "0", 4, false));
  Socket client;
  client.SetNonBlocking(true);
  if (!client.Connect("tcp$127.0.0.1:" + PortOf(listener))) {
    EXPECT_TRUE(errno == EINPROGRESS || errno == EAGAIN) << errno;
    EXPECT_EQ(Socket::GetLastError(), Socket::InProgress);
    EXPECT_TRUE(client.IsOpen());  // the connection is under way
    EXPECT_EQ(client.Select(false, true, false, 5000) & 2, 2);
  }
  EXPECT_EQ(client.GetSocketError(), Socket::Success);
  Socket accepted;
  EXPECT_TRUE(listener.Accept(accepted));
}

TEST(Socket, FailedConnectReportsTheLastError) {
  std::string port;
  {
    Socket probe;  // a port that was just free
    ASSERT_TRUE(probe.Bind("tcp$127.0.0.1:0"));
    port = PortOf(probe);
  }
  Socket client;
  EXPECT_FALSE(client.Connect("tcp$127.0.0.1:" + port));
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_FALSE(client.IsOpen());  // opened for the attempt, closed again

  errno = 0;
  EXPECT_FALSE(client.Connect("ipx#127.0.0.1:1"));
  EXPECT_EQ(errno, EINVAL);
  EXPECT_FALSE(client.Connect("tcp$127.0.0.1:no-such-service"));
}

TEST(Socket, LocalDomainSocketsRemoveTheirPathOnClose) {
  const std::string path = "/tmp/kt-socket-test-" + std::to_string(getpid());
  const std::string endpoint = "/local:" + path;
  Socket listener;
  ASSERT_TRUE(listener.Listen(endpoint, 4, true)) << strerror(errno);
  EXPECT_EQ(listener.Family(), AF_LOCAL);
  EXPECT_TRUE(PathExists(path));
  EXPECT_EQ(listener.GetSockString(false), "/local " + path);

  Socket client;
  ASSERT_TRUE(client.Connect(endpoint));
  Socket server;
  ASSERT_TRUE(listener.Accept(server));
  EXPECT_EQ(client.Send("x", 1), 1);
  char c = 0;
  EXPECT_EQ(server.Recv(&c, 1), 1);

  // Unbound sockets remove nothing.
  EXPECT_TRUE(client.Close());
  EXPECT_TRUE(server.Close());
  EXPECT_TRUE(PathExists(path));
  // A second bind to a path in use fails.
  Socket second;
  EXPECT_FALSE(second.Listen(endpoint, 4, true));
  EXPECT_TRUE(PathExists(path));

  EXPECT_TRUE(listener.Close());
  EXPECT_FALSE(PathExists(path));
}

TEST(Socket, CopiesShareTheDescriptor) {
  Socket original;
  ASSERT_TRUE(original.Open(AF_INET, SOCK_DGRAM));
  original.SetNonBlocking(true);
  const int handle = original.GetSocketHandle();
  {
    Socket copy(original);
    EXPECT_EQ(copy.GetSocketHandle(), handle);
    EXPECT_EQ(copy.SockType(), SOCK_DGRAM);
    Socket assigned;
    assigned = original;
    EXPECT_EQ(assigned.Detach(), handle);
    EXPECT_EQ(assigned.GetSocketHandle(), -1);
  }  // the copy closed the shared descriptor
  EXPECT_FALSE(original.Close());
  EXPECT_EQ(errno, EBADF);
}

TEST(Socket, SelectOverSeveralSockets) {
  TcpPair a;
  TcpPair b;
  Socket closed;
  ASSERT_EQ(a.client.Send("1", 1), 1);

  std::set<Socket*> read{&a.server, &b.server, &closed};
  std::set<Socket*> write{&a.server};
  std::set<Socket*> except{&closed};
  ASSERT_TRUE(Socket::Select(read, write, except, 5000));
  EXPECT_EQ(read, std::set<Socket*>{&a.server});
  EXPECT_EQ(write, std::set<Socket*>{&a.server});  // one entry, both conditions reported
  EXPECT_TRUE(except.empty());

  // Nothing ready: false after the timeout, sets untouched.
  std::set<Socket*> idle{&b.server, &b.client};
  std::set<Socket*> none;
  std::set<Socket*> none2;
  const auto start = std::chrono::steady_clock::now();
  errno = 0;
  EXPECT_FALSE(Socket::Select_tiny(idle, none, none2, 50));
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40));
  EXPECT_EQ(idle.size(), 2u);

  errno = 0;
  EXPECT_EQ(b.server.Select(true, false, true, 20), 0);
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(closed.Select(true, true, true, 0), 0);

  // A peer that goes away shows up as readable (end of stream).
  b.client.Close();
  std::set<Socket*> gone{&b.server};
  EXPECT_TRUE(Socket::Select_huge(gone, none, none2, 5000));
  EXPECT_EQ(gone, std::set<Socket*>{&b.server});
}

TEST(Socket, SelectMergesHandlesInLargeSets) {
  std::vector<Socket> sockets(200);
  std::set<Socket*> read;
  std::set<Socket*> write;
  for (Socket& socket : sockets) {
    ASSERT_TRUE(socket.Open(AF_INET, SOCK_DGRAM));
    read.insert(&socket);
    write.insert(&socket);
  }
  std::set<Socket*> except(read);
  const std::set<Socket*> all(read);
  ASSERT_TRUE(Socket::Select_medium(read, write, except, 5000));
  EXPECT_TRUE(read.empty());  // nothing arrived
  EXPECT_EQ(write, all);      // every datagram socket can send
  EXPECT_TRUE(except.empty());
}

TEST(Socket, SelectRefusesHugeSets) {
  std::vector<Socket> sockets(2500);
  std::set<Socket*> read;
  for (Socket& socket : sockets) read.insert(&socket);
  std::set<Socket*> write;
  std::set<Socket*> except;
  EXPECT_FALSE(Socket::Select(read, write, except, 0));
  EXPECT_EQ(read.size(), 2500u);
  read.erase(read.begin());  // 2,499 closed sockets are accepted (and skipped)
  errno = 0;
  EXPECT_FALSE(Socket::Select(read, write, except, 0));
  EXPECT_EQ(errno, ETIMEDOUT);
}

TEST(Socket, DescriptorsAboveFdSetSize) {
  rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit saved = limit;
  const rlim_t wanted = FD_SETSIZE + 64;
  if (limit.rlim_cur < wanted) {
    if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max < wanted) {
      GTEST_SKIP() << "the descriptor limit cannot reach " << wanted;
    }
    limit.rlim_cur = wanted;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  }
  {
    TcpPair pair;
    const int high = FD_SETSIZE + 10;
    ASSERT_EQ(dup2(pair.server.GetSocketHandle(), high), high);
    Socket server;
    server.Attach(high, AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(pair.client.Send("z", 1), 1);

    EXPECT_EQ(server.Select(true, false, false, 5000), 1);
    std::set<Socket*> read{&server};
    std::set<Socket*> write;
    std::set<Socket*> except;
    EXPECT_TRUE(Socket::Select(read, write, except, 5000));
    EXPECT_EQ(read.size(), 1u);
    char c = 0;
    EXPECT_EQ(server.Recv(&c, 1), 1);
    EXPECT_EQ(c, 'z');
  }
  setrlimit(RLIMIT_NOFILE, &saved);
}

TEST(SocketDeathTest, OneDescriptorInTwoObjectsAborts) {
  Socket first;
  ASSERT_TRUE(first.Open(AF_INET, SOCK_DGRAM));
  Socket second;
  second.Attach(first.GetSocketHandle(), AF_INET, SOCK_DGRAM, 0);
  std::set<Socket*> read{&first};
  std::set<Socket*> write{&second};
  std::set<Socket*> except;
  EXPECT_DEATH(Socket::Select(read, write, except, 0), "pollsocks\\[i\\] == in_socket");

  std::vector<Socket> others(100);  // the same check on the indexed path of large sets
  for (Socket& other : others) {
    ASSERT_TRUE(other.Open(AF_INET, SOCK_DGRAM));
    read.insert(&other);
  }
  EXPECT_DEATH(Socket::Select(read, write, except, 0), "function Select_medium");
  second.Detach();
}
