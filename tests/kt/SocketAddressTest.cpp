#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <string.h>
#include <sys/un.h>

#include <map>

#include "kt/Socket.h"

namespace {

IPv4Socket::Address Ipv4(const char* text, unsigned short port) {
  IPv4Socket::Address address;
  address.SetAddr(ntohl(inet_addr(text)));
  address.SetPort(port);
  return address;
}

// The IPv4 port of an address, read without the write-back of Port().
unsigned short PortOf(const Socket::Address& address) {
  const unsigned char* port = address.Data() + offsetof(sockaddr_in, sin_port);
  return static_cast<unsigned short>(port[0] * 256 + port[1]);
}

}  // namespace

TEST(SocketAddress, EmptyAddressesAreEqualAndSmallest) {
  Socket::Address empty;
  Socket::Address other;
  EXPECT_TRUE(!empty);
  EXPECT_FALSE(static_cast<bool>(empty));
  EXPECT_EQ(static_cast<sockaddr*>(empty), nullptr);
  EXPECT_NE(empty.Data(), nullptr);
  EXPECT_TRUE(empty == other);
  EXPECT_FALSE(empty != other);
  EXPECT_TRUE(empty <= other && empty >= other);

  IPv4Socket::Address any;
  EXPECT_TRUE(empty < any);
  EXPECT_TRUE(any > empty);
  EXPECT_FALSE(any <= empty);
  EXPECT_NE(static_cast<sockaddr*>(any), nullptr);
}

TEST(SocketAddress, TypedDefaultsAndByteOrder) {
  IPv4Socket::Address v4;
  EXPECT_EQ(v4.Length(), 16u);
  EXPECT_EQ(v4.Family(), AF_INET);
  IPv6Socket::Address v6;
  EXPECT_EQ(v6.Length(), 16u);  // not the whole structure: callers set it when they need it
  EXPECT_EQ(v6.Family(), AF_INET6);

  // Same length: the family byte decides.
  EXPECT_TRUE(Socket::Address(v4) < Socket::Address(v6));

  IPv4Socket::Address loopback = Ipv4("127.0.0.1", 8080);
  EXPECT_EQ(loopback.Addr(), 0x7F000001u);
  const unsigned char* raw = loopback.Data() + offsetof(sockaddr_in, sin_addr);
  EXPECT_EQ(raw[0], 127);
  EXPECT_EQ(raw[3], 1);
  EXPECT_EQ(PortOf(loopback), 8080);

  in6_addr bytes;
  inet_pton(AF_INET6, "fe80::1", &bytes);
  v6.SetAddr(bytes);
  v6.SetPort(443);
  in6_addr back = v6.Addr();
  EXPECT_EQ(memcmp(&back, &bytes, sizeof(bytes)), 0);
}

TEST(SocketAddress, PortWritesBackTheConvertedValue) {
  IPv4Socket::Address v4 = Ipv4("10.0.0.1", 80);
  EXPECT_EQ(v4.Port(), 80);
  EXPECT_EQ(v4.Port(), 20480);
  EXPECT_EQ(v4.Port(), 80);

  IPv6Socket::Address v6;
  v6.SetPort(80);
  EXPECT_EQ(v6.Port(), 80);
  EXPECT_EQ(v6.Port(), 20480);
}

TEST(SocketAddress, PlusAndMinusStepThePortByOne) {
  IPv4Socket::Address a = Ipv4("192.0.2.7", 80);
  Socket::Address next = a + 5;
  EXPECT_EQ(PortOf(next), 81);
  EXPECT_EQ(PortOf(a - 100), 79);
  EXPECT_EQ(PortOf(a), 80);  // the operand is not changed
  EXPECT_TRUE((next & Ipv4("255.255.255.255", 0)) == Ipv4("192.0.2.7", 0));
  EXPECT_EQ(PortOf(Ipv4("192.0.2.7", 65535) + 1), 0);
}

TEST(SocketAddress, AndOrCombineBytesOverTheShorterLength) {
  IPv4Socket::Address host = Ipv4("192.168.17.42", 0);
  IPv4Socket::Address mask = Ipv4("255.255.255.0", 0);
  IPv4Socket::Address network = Ipv4("192.168.17.0", 0);
  EXPECT_TRUE((host & mask) == network);
  EXPECT_TRUE((network | Ipv4("0.0.0.42", 0)) == host);

  Socket::Address longMask(64, AF_INET);
  memset(longMask.Data(), 0xFF, 64);
  Socket::Address combined = host & longMask;
  EXPECT_EQ(combined.Length(), 16u);
  EXPECT_TRUE(combined == host);
  EXPECT_EQ(combined.Data()[20], 0);  // beyond the length stays zero

  Socket::Address none = host | Socket::Address();
  EXPECT_TRUE(!none);
}

TEST(SocketAddress, ConstructorFromSockaddrCopiesByFamily) {
  sockaddr_in in;
  memset(&in, 0xAB, sizeof(in));  // padding must not be copied
  in.sin_family = AF_INET;
  in.sin_port = htons(5004);
  in.sin_addr.s_addr = htonl(0x7F000001);
  Socket::Address copied(reinterpret_cast<sockaddr*>(&in), sizeof(in));
  EXPECT_EQ(copied.Length(), sizeof(in));
  EXPECT_TRUE(copied == Ipv4("127.0.0.1", 5004));

  sockaddr_un un;
  memset(&un, 'x', sizeof(un));  // an unterminated path: the copy stops at the given length
  un.sun_family = AF_LOCAL;
  Socket::Address local(reinterpret_cast<sockaddr*>(&un), sizeof(un));
  EXPECT_EQ(local.Family(), AF_LOCAL);
  const char* path = reinterpret_cast<const char*>(local.Data()) + offsetof(sockaddr_un, sun_path);
  EXPECT_EQ(strlen(path), sizeof(un) - offsetof(sockaddr_un, sun_path));

  Socket::Address fromNull(nullptr, 16);
  EXPECT_TRUE(!fromNull);

  sockaddr_in6 in6;
  memset(&in6, 0, sizeof(in6));
  in6.sin6_family = AF_INET6;
  in6.sin6_port = htons(9);
  in6.sin6_scope_id = 3;
  Socket::Address generic(reinterpret_cast<sockaddr*>(&in6), sizeof(in6));
  EXPECT_EQ(memcmp(generic.Data(), &in6, sizeof(in6)), 0);
  EXPECT_TRUE(generic == IPv6Socket::Address(&in6));
}

TEST(SocketAddress, OrdersAsMapKeys) {
  std::map<Socket::Address, int> table;
  table[Ipv4("10.0.0.2", 1)] = 2;
  table[Ipv4("10.0.0.1", 1)] = 1;
  table[Socket::Address()] = 0;
  table[Ipv4("10.0.0.1", 1)] = 3;
  ASSERT_EQ(table.size(), 3u);
  EXPECT_EQ(table.begin()->second, 0);
  EXPECT_EQ(table[Ipv4("10.0.0.1", 1)], 3);
}

TEST(SocketAddressDeathTest, ContractViolationsAbortWithTheirMessage) {
  EXPECT_DEATH(Socket::Address(257, AF_INET), "length <= sizeof\\(address_\\)");
  Socket::Address address;
  EXPECT_DEATH(address.SetLength(300), "function SetLength, file Socket");
  IPv6Socket::Address v6;
  EXPECT_DEATH(v6 + 1, "Assertion failed: \\(0\\), function operator\\+");
  EXPECT_DEATH(v6 - 1, "function operator-");
}
