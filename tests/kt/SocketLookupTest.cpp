#include <errno.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <stddef.h>
#include <sys/un.h>

#include <set>
#include <sstream>

#include "kt/Socket.h"

namespace {

template <typename T>
std::string Print(const T& value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

}  // namespace

TEST(SocketErrors, EveryCodeHasATextOfItsOwn) {
  // A missing, repeated or shifted entry of the text table shows as an empty, repeated or numbered
  // text somewhere in the range.
  std::set<std::string> texts;
  for (int code = Socket::Success; code <= Socket::UnknownError; ++code) {
    const std::string text = Print(static_cast<Socket::error_t>(code));
    EXPECT_FALSE(text.empty()) << code;
    EXPECT_EQ(text.find_first_of("0123456789"), std::string::npos) << code << ": " << text;
    EXPECT_TRUE(texts.insert(text).second) << code << " repeats \"" << text << "\"";
  }
  EXPECT_EQ(Print(Socket::Success), "Success");
  EXPECT_EQ(Print(Socket::UnknownError), "Unknown error");
  // The spellings a tidy-up would be tempted to change.
  EXPECT_EQ(Print(Socket::AddressInUse), "Requested address in Use");
  EXPECT_EQ(Print(Socket::TimedOut), "Operation timed-out");
  EXPECT_EQ(Print(Socket::InProgress), "Nonblocking function in progress");

  // A system error reads as the same condition once translated.
  const struct {
    int error;
    const char* text;
  } conditions[] = {
      {ECONNREFUSED, "Connection refused"},
      {EACCES, "Permission denied"},
      {ENETUNREACH, "Network is unreachable"},
      {EINTR, "Interrupted function call"},
  };
  for (const auto& condition : conditions) {
    errno = condition.error;
    EXPECT_EQ(Print(Socket::GetLastError()), condition.text) << condition.error;
  }

  // Values outside the table carry their number.
  EXPECT_EQ(Print(static_cast<Socket::error_t>(20)), "Unknown error 20");
  EXPECT_EQ(Print(static_cast<Socket::error_t>(25)), "Unknown error 25");
  EXPECT_EQ(Print(static_cast<Socket::error_t>(-1)), "Unknown error -1");
}

TEST(SocketErrors, FromOSErrorTable) {
  const struct {
    int error;
    Socket::error_t code;
  } rows[] = {
      {0, Socket::Success},
      {EMFILE, Socket::NoResources},
      {ENOBUFS, Socket::NoResources},
      {EBADF, Socket::InvalidHandle},
      {ENOTSOCK, Socket::InvalidHandle},
      {EFAULT, Socket::InvalidArgument},
      {EINVAL, Socket::InvalidArgument},
      {EDESTADDRREQ, Socket::InvalidArgument},
      {EMSGSIZE, Socket::InvalidArgument},
      {EALREADY, Socket::NotAllowed},
      {EPERM, Socket::PermissionDenied},
      {EACCES, Socket::PermissionDenied},
      {EPROTOTYPE, Socket::NotSupported},
      {ENOPROTOOPT, Socket::NotSupported},
      {EPROTONOSUPPORT, Socket::NotSupported},
      {ESOCKTNOSUPPORT, Socket::NotSupported},
      {EPFNOSUPPORT, Socket::NotSupported},
      {EAFNOSUPPORT, Socket::NotSupported},
      {ESHUTDOWN, Socket::NotSupported},
      {EOPNOTSUPP, Socket::NotSupported},
      {EADDRINUSE, Socket::AddressInUse},
      {EADDRNOTAVAIL, Socket::AddressNotAvailable},
      {ENETDOWN, Socket::NetworkUnreachable},
      {ENETUNREACH, Socket::NetworkUnreachable},
      {ENOENT, Socket::HostNotFound},
      {EHOSTDOWN, Socket::HostUnreachable},
      {EHOSTUNREACH, Socket::HostUnreachable},
      {ETIMEDOUT, Socket::TimedOut},
      {ENOTCONN, Socket::NotConnected},
      {ECONNREFUSED, Socket::ConnectionRefused},
      {ENETRESET, Socket::ConnectionReset},
      {ECONNABORTED, Socket::ConnectionReset},
      {ECONNRESET, Socket::ConnectionReset},
      {EPIPE, Socket::ConnectionEnded},
      {EINTR, Socket::Interrupted},
      {EAGAIN, Socket::InProgress},
      {EINPROGRESS, Socket::InProgress},
      {EISCONN, Socket::UnknownError},
      {ENOMEM, Socket::UnknownError},
      {-7, Socket::UnknownError},
  };
  for (const auto& row : rows) EXPECT_EQ(Socket::FromOSError(row.error), row.code) << row.error;
#if ENOTSUP != EOPNOTSUPP
  EXPECT_EQ(Socket::FromOSError(ENOTSUP), Socket::UnknownError);
#endif
}

TEST(SocketErrors, ToOSErrorIsNotTheInverse) {
  const int expected[] = {0,          EMFILE,          ENOTSOCK,  EINVAL,        EINPROGRESS,
                          EACCES,     ESOCKTNOSUPPORT, 0,         EADDRNOTAVAIL, ENETUNREACH,
                          ENOENT,     EHOSTUNREACH,    ETIMEDOUT, ENOTCONN,      ECONNREFUSED,
                          ECONNRESET, EPIPE,           EINTR,     EAGAIN,        0};
  for (int code = 0; code < 20; ++code) {
    EXPECT_EQ(Socket::ToOSError(static_cast<Socket::error_t>(code)), expected[code]) << code;
  }
  EXPECT_EQ(Socket::ToOSError(static_cast<Socket::error_t>(99)), 0);

  Socket::SetLastError(Socket::ConnectionRefused);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(Socket::GetLastError(), Socket::ConnectionRefused);
}

TEST(SocketDscp, NamesAndNumbers) {
  EXPECT_EQ(Socket::GetDscpByName("af41"), 34);
  EXPECT_EQ(Socket::GetDscpByName("EF"), 46);
  EXPECT_EQ(Socket::GetDscpByName("Default"), 0);
  EXPECT_EQ(Socket::GetDscpByName("cs7"), 56);
  EXPECT_EQ(Socket::GetDscpByName("63"), 63);
  EXPECT_EQ(Socket::GetDscpByName("0063"), 63);
  for (const char* bad : {"64", "4x", "", "-1", "AF44", "99999999999999999999"}) {
    EXPECT_EQ(Socket::GetDscpByName(bad), -1) << bad;
  }

  EXPECT_EQ(Socket::GetDscpByNumber(46), "EF");
  EXPECT_EQ(Socket::GetDscpByNumber(10), "AF11");
  EXPECT_EQ(Socket::GetDscpByNumber(9), "9");
  EXPECT_EQ(Socket::GetDscpByNumber(64), "");
  EXPECT_EQ(Socket::GetDscpByNumber(-1), "");
  for (int n = 0; n < 64; ++n) EXPECT_EQ(Socket::GetDscpByName(Socket::GetDscpByNumber(n)), n);
}

TEST(SocketDscp, StandardCodePoints) {
  // The DiffServ code points follow from their names: class selector n is 8n, assured forwarding
  // class x with drop precedence y is 8x + 2y, expedited forwarding is 46, the default is 0.
  std::set<int> named = {0, 46};
  EXPECT_EQ(Socket::GetDscpByNumber(0), "DEFAULT");
  EXPECT_EQ(Socket::GetDscpByName("ef"), 46);
  for (int n = 1; n <= 7; ++n) {
    const std::string name = "CS" + std::to_string(n);
    EXPECT_EQ(Socket::GetDscpByName(name), 8 * n) << name;
    EXPECT_EQ(Socket::GetDscpByNumber(8 * n), name);
    named.insert(8 * n);
  }
  for (int x = 1; x <= 4; ++x) {
    for (int y = 1; y <= 3; ++y) {
      const std::string name = "AF" + std::to_string(x) + std::to_string(y);
      EXPECT_EQ(Socket::GetDscpByName(name), 8 * x + 2 * y) << name;
      EXPECT_EQ(Socket::GetDscpByNumber(8 * x + 2 * y), name);
      named.insert(8 * x + 2 * y);
    }
  }
  // Every other code point below 64 has no name and reads as its number.
  for (int n = 0; n < 64; ++n) {
    if (named.count(n) == 0) {
      EXPECT_EQ(Socket::GetDscpByNumber(n), std::to_string(n));
    }
  }
}

TEST(SocketParameterInfo, SplitsEndpointStrings) {
  const struct {
    const char* endpoint;
    const char* host;
    const char* service;
    int family;
    int type;
  } rows[] = {
      {"ipv4#tcp$example.org:http", "example.org", "http", AF_INET, SOCK_STREAM},
      {"IPv6#UDP$[::1]:5004", "::1", "5004", AF_INET6, SOCK_DGRAM},
      {"af_inet6#sock_dgram$[fe80::1%lo]:9", "fe80::1%lo", "9", AF_INET6, SOCK_DGRAM},
      {"*#*$host:80", "host", "80", 0, 0},
      {"PF_UNIX#stream$/local:/tmp/x", "/local", "/tmp/x", AF_LOCAL, SOCK_STREAM},
      {"/unix:/tmp/y", "/unix", "/tmp/y", AF_LOCAL, 0},
      {"inet#/local:/tmp/z", "/local", "/tmp/z", AF_INET, 0},
      {"8080", "localhost", "8080", 0, 0},
      {"http", "localhost", "http", 0, 0},
      {"*", "localhost", "*", 0, 0},
      {"media.example", "media.example", "", 0, 0},
      {"dgram$4000", "localhost", "4000", 0, SOCK_DGRAM},
      {":80", "localhost", "80", 0, 0},
      {"*:0", "*", "0", 0, 0},
      {"", "localhost", "", 0, 0},
      {"#$host:1", "host", "1", 0, 0},
      {"[a:[b]:c]:7", "a:[b]:c", "7", 0, 0},
      {"a]b:1", "a]b", "1", 0, 0},
      {"h:1:2", "1", "2", 0, 0},  // a field given twice keeps the last
  };
  for (const auto& row : rows) {
    std::string host = "stale";
    std::string service = "stale";
    int family = -1;
    int type = -1;
    ASSERT_TRUE(Socket::GetParameterInfo(row.endpoint, host, service, family, type))
        << row.endpoint;
    EXPECT_EQ(host, row.host) << row.endpoint;
    EXPECT_EQ(service, row.service) << row.endpoint;
    EXPECT_EQ(family, row.family) << row.endpoint;
    EXPECT_EQ(type, row.type) << row.endpoint;
  }

  for (const char* bad :
       {"ipx#host:1", "tcp#host:1", "raw$host:1", "[::1:80", "h:1(o)x", "ipv4#seqpacket$h:1"}) {
    std::string host;
    std::string service;
    errno = 0;
    EXPECT_FALSE(Socket::GetParameterInfo(bad, host, service)) << bad;
    EXPECT_EQ(errno, EINVAL) << bad;
  }
}

TEST(SocketParameterInfo, OptionsAndPortForms) {
  std::string host;
  std::string service;
  int family = 0;
  int type = 0;
  std::map<std::string, std::string> options;
  ASSERT_TRUE(Socket::GetParameterInfo("udp$media:5004(dscp=EF,ttl=4,loop)", host, service, family,
                                       type, options));
  EXPECT_EQ(host, "media");
  EXPECT_EQ(service, "5004");
  EXPECT_EQ(type, SOCK_DGRAM);
  EXPECT_EQ(Print(options), "\"dscp\"=\"EF\", \"loop\"=\"\", \"ttl\"=\"4\"");

  unsigned short port = 0;
  ASSERT_TRUE(Socket::GetParameterInfo("tcp$h:8443", host, port, family, type));
  EXPECT_EQ(port, 8443);
  ASSERT_TRUE(Socket::GetParameterInfo("h:70000", host, port));
  EXPECT_EQ(port, 70000 - 65536);  // kept to 16 bits
  ASSERT_TRUE(Socket::GetParameterInfo("h:no-such-service", host, port));
  EXPECT_EQ(port, 0);
}

TEST(SocketLookup, ServicesAndHostName) {
  EXPECT_EQ(Socket::GetServiceByName(""), 0);
  EXPECT_EQ(Socket::GetServiceByName("8080"), 8080);
  EXPECT_EQ(Socket::GetServiceByName("no-such-service", "tcp"), 0);
  EXPECT_EQ(Socket::GetServiceByNumber(64999), "64999");
  if (getservbyname("http", "tcp") != nullptr) {  // the services database is installed
    EXPECT_EQ(Socket::GetServiceByName("http", "tcp"), 80);
    EXPECT_EQ(Socket::GetServiceByName("http"), 80);
    EXPECT_EQ(Socket::GetServiceByNumber(80, "tcp"), "http");
  }
  EXPECT_FALSE(Socket::GetHostName().empty());
  EXPECT_TRUE(Socket::Initialize());
}

TEST(SocketLookup, AddressInfoForNumericAndLocalHosts) {
  std::list<Socket::AddressInfo> list;
  ASSERT_TRUE(Socket::GetAddressInfo("127.0.0.1", "8080", list, AF_INET, SOCK_STREAM, 0, 0));
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list.front().family, AF_INET);
  EXPECT_EQ(list.front().type, SOCK_STREAM);
  EXPECT_EQ(Print(list.front().address), "127.0.0.1 8080");

  ASSERT_TRUE(Socket::GetAddressInfo("*", "", list, AF_INET, SOCK_DGRAM, 0, 1));
  ASSERT_FALSE(list.empty());
  EXPECT_EQ(Print(list.front().address), "0.0.0.0 0");

  ASSERT_TRUE(Socket::GetAddressInfo("/local", "/tmp/kt-test.sock", list, 0, 0, 0, 0));
  ASSERT_EQ(list.size(), 1u);
  const Socket::AddressInfo& local = list.front();
  EXPECT_EQ(local.family, AF_LOCAL);
  EXPECT_EQ(local.type, SOCK_STREAM);
  EXPECT_EQ(local.address.Length(), std::string("/tmp/kt-test.sock").size() + 2);
  std::string host;
  std::string service;
  ASSERT_TRUE(Socket::GetNameInfo(local.address, host, service));
  EXPECT_EQ(host, "/local");
  EXPECT_EQ(service, "/tmp/kt-test.sock");

  EXPECT_FALSE(Socket::GetAddressInfo("/local", std::string(200, 'p'), list, 0, 0, 0, 0));
  EXPECT_FALSE(Socket::GetAddressInfo("/local", "", list, 0, 0, 0, 0));
  EXPECT_FALSE(Socket::GetAddressInfo("127.0.0.1", "no-such-service", list, 0, 0, 0, 0));
  EXPECT_EQ(Socket::GetLookupError(), EAI_SERVICE);
  EXPECT_TRUE(list.empty());

  EXPECT_FALSE(Socket::GetNameInfo(Socket::Address(), host, service));
  EXPECT_EQ(Print(Socket::Address()), "");
}

TEST(SocketLookup, IpAddressesOfNames) {
  std::string ip;
  ASSERT_TRUE(Socket::IpAddress("127.0.0.1", ip));
  EXPECT_EQ(ip, "127.0.0.1");
  ASSERT_TRUE(Socket::IpAddress("/local", ip));
  EXPECT_EQ(ip, "/local");
  std::list<std::string> ips;
  ASSERT_TRUE(Socket::IpAddresses("::1", ips));
  EXPECT_EQ(ips, std::list<std::string>{"::1"});
}

TEST(SocketLookup, TypeAndFamilyPrinters) {
  EXPECT_EQ(Print(Socket::Stream), "Stream");
  EXPECT_EQ(Print(Socket::Datagram), "Datagram");
  EXPECT_EQ(Print(Socket::IPv4), "IPv4");
  EXPECT_EQ(Print(Socket::IPv6), "IPv6");
  EXPECT_EQ(Print(std::map<std::string, std::string>{}), "");
}
