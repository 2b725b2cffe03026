// Socket addresses: the generic value type and its IPv4 and IPv6 views.
#include <arpa/inet.h>
#include <stddef.h>
#include <string.h>
#include <sys/un.h>

#include <algorithm>

#include "SocketPrivate.h"
#include "kt/Socket.h"

namespace {

// The storage is a byte array; fields are read and written through memcpy so that no sockaddr
// type is ever accessed through a pointer of another type.
template <typename T>
T Load(const unsigned char* storage, size_t offset) {
  T value;
  memcpy(&value, storage + offset, sizeof(T));
  return value;
}

template <typename T>
void Store(unsigned char* storage, size_t offset, const T& value) {
  memcpy(storage + offset, &value, sizeof(T));
}

// The port at offset in host order. The converted value is written back on purpose: callers rely
// on reading a port exactly once (a second read converts it again).
unsigned short ReadPortOnce(unsigned char* storage, size_t offset) {
  const uint16_t port = ntohs(Load<in_port_t>(storage, offset));
  Store<in_port_t>(storage, offset, port);
  return port;
}

}  // namespace

Socket::Address::Address() : length_(0) { memset(address_, 0, sizeof(address_)); }

Socket::Address::Address(unsigned length, unsigned char family) : length_(0) {
  memset(address_, 0, sizeof(address_));
  KT_SOCKET_CHECK(length <= sizeof(address_), "length <= sizeof(address_)", "Address");
  length_ = length;
  SetFamily(family);
}

Socket::Address::Address(const sockaddr* sa, unsigned length) : length_(0) {
  memset(address_, 0, sizeof(address_));
  KT_SOCKET_CHECK(length <= sizeof(address_), "length <= sizeof(address_)", "Address");
  if (sa == nullptr) return;
  length_ = length;
  switch (sa->sa_family) {
    case AF_LOCAL: {
      SetFamily(AF_LOCAL);
      // The path is copied up to its zero, but never beyond the given length (the kernel does
      // not always terminate it) nor beyond our storage (keeping a terminating zero).
      const size_t offset = offsetof(sockaddr_un, sun_path);
      const size_t limit = std::min<size_t>(length, sizeof(address_) - 1);
      if (limit > offset) {
        const char* path = reinterpret_cast<const char*>(sa) + offset;
        memcpy(address_ + offset, path, strnlen(path, limit - offset));
      }
      break;
    }
    case AF_INET: {
      // Only the port and the address: the length byte and the padding stay zero.
      SetFamily(AF_INET);
      const unsigned char* source = reinterpret_cast<const unsigned char*>(sa);
      const size_t port = offsetof(sockaddr_in, sin_port);
      const size_t addr = offsetof(sockaddr_in, sin_addr);
      if (length >= port + sizeof(in_port_t))
        memcpy(address_ + port, source + port, sizeof(in_port_t));
      if (length >= addr + sizeof(in_addr)) memcpy(address_ + addr, source + addr, sizeof(in_addr));
      break;
    }
    default:
      memcpy(address_, sa, length);
      break;
  }
}

Socket::Address::Address(const Address& other) : length_(other.length_) {
  memcpy(address_, other.address_, sizeof(address_));
}

Socket::Address& Socket::Address::operator=(const Address& other) {
  if (this != &other) {
    length_ = other.length_;
    memcpy(address_, other.address_, sizeof(address_));
  }
  return *this;
}

Socket::Address::~Address() = default;

Socket::Address::operator sockaddr*() {
  return length_ == 0 ? nullptr : reinterpret_cast<sockaddr*>(address_);
}

Socket::Address::operator sockaddr const*() const {
  return length_ == 0 ? nullptr : reinterpret_cast<const sockaddr*>(address_);
}

void Socket::Address::SetLength(unsigned length) {
  KT_SOCKET_CHECK(length <= sizeof(address_), "length <= sizeof(address_)", "SetLength");
  length_ = length;
}

unsigned Socket::Address::Length() const { return length_; }

void Socket::Address::SetFamily(unsigned char family) {
#ifdef __APPLE__
  address_[offsetof(sockaddr, sa_family)] = family;
#else
  Store<sa_family_t>(address_, offsetof(sockaddr, sa_family), family);
#endif
}

unsigned char Socket::Address::Family() const {
#ifdef __APPLE__
  return address_[offsetof(sockaddr, sa_family)];
#else
  return static_cast<unsigned char>(Load<sa_family_t>(address_, offsetof(sockaddr, sa_family)));
#endif
}

bool Socket::Address::operator!() const { return length_ == 0; }

Socket::Address::operator bool() const { return length_ != 0; }

bool Socket::Address::operator==(Address const& other) const {
  return length_ == other.length_ && memcmp(address_, other.address_, length_) == 0;
}

bool Socket::Address::operator!=(Address const& other) const { return !(*this == other); }

namespace {

// Shorter addresses first, then the bytes of equal-length addresses.
int Compare(const unsigned char* a, unsigned lengthA, const unsigned char* b, unsigned lengthB) {
  if (lengthA != lengthB) return lengthA < lengthB ? -1 : 1;
  return memcmp(a, b, lengthA);
}

}  // namespace

bool Socket::Address::operator<(Address const& other) const {
  return Compare(address_, length_, other.address_, other.length_) < 0;
}

bool Socket::Address::operator>(Address const& other) const {
  return Compare(address_, length_, other.address_, other.length_) > 0;
}

bool Socket::Address::operator<=(Address const& other) const {
  return Compare(address_, length_, other.address_, other.length_) <= 0;
}

bool Socket::Address::operator>=(Address const& other) const {
  return Compare(address_, length_, other.address_, other.length_) >= 0;
}

Socket::Address Socket::Address::operator&(Address const& other) const {
  Address result;
  result.length_ = std::min(length_, other.length_);
  for (unsigned i = 0; i < result.length_; ++i)
    result.address_[i] = address_[i] & other.address_[i];
  return result;
}

Socket::Address Socket::Address::operator|(Address const& other) const {
  Address result;
  result.length_ = std::min(length_, other.length_);
  for (unsigned i = 0; i < result.length_; ++i)
    result.address_[i] = address_[i] | other.address_[i];
  return result;
}

namespace {

// Moves the IPv4 port of storage by step in host order.
void StepPort(unsigned char* storage, int step) {
  const size_t offset = offsetof(sockaddr_in, sin_port);
  const uint16_t port = ntohs(Load<in_port_t>(storage, offset));
  Store<in_port_t>(storage, offset, htons(static_cast<uint16_t>(port + step)));
}

}  // namespace

Socket::Address Socket::Address::operator+(int) const {
  KT_SOCKET_CHECK(Family() == AF_INET, "0", "operator+");
  Address result(*this);
  StepPort(result.address_, 1);
  return result;
}

Socket::Address Socket::Address::operator-(int) const {
  KT_SOCKET_CHECK(Family() == AF_INET, "0", "operator-");
  Address result(*this);
  StepPort(result.address_, -1);
  return result;
}

unsigned char* Socket::Address::Data() { return address_; }

unsigned char const* Socket::Address::Data() const { return address_; }

// IPv4

IPv4Socket::Address::Address() : Socket::Address(sizeof(sockaddr_in), AF_INET) {}

IPv4Socket::Address::Address(sockaddr_in const* sin)
    : Socket::Address(sizeof(sockaddr_in), AF_INET) {
  if (sin != nullptr) memcpy(address_, sin, sizeof(sockaddr_in));
}

IPv4Socket::Address::Address(const Address& other) : Socket::Address(other) {}

IPv4Socket::Address& IPv4Socket::Address::operator=(const Address& other) {
  Socket::Address::operator=(other);
  return *this;
}

unsigned short IPv4Socket::Address::Port() const {
  return ReadPortOnce(address_, offsetof(sockaddr_in, sin_port));
}

void IPv4Socket::Address::SetPort(unsigned short port) {
  Store<in_port_t>(address_, offsetof(sockaddr_in, sin_port), htons(port));
}

uint32_t IPv4Socket::Address::Addr() const {
  return ntohl(Load<in_addr_t>(address_, offsetof(sockaddr_in, sin_addr)));
}

void IPv4Socket::Address::SetAddr(uint32_t addr) {
  Store<in_addr_t>(address_, offsetof(sockaddr_in, sin_addr), htonl(addr));
}

// IPv6

IPv6Socket::Address::Address() : Socket::Address(16, AF_INET6) {}

IPv6Socket::Address::Address(sockaddr_in6 const* sin6) : Socket::Address(16, AF_INET6) {
  if (sin6 != nullptr) {
    memcpy(address_, sin6, sizeof(sockaddr_in6));
    length_ = sizeof(sockaddr_in6);
  }
}

IPv6Socket::Address::Address(const Address& other) : Socket::Address(other) {}

IPv6Socket::Address& IPv6Socket::Address::operator=(const Address& other) {
  Socket::Address::operator=(other);
  return *this;
}

unsigned short IPv6Socket::Address::Port() const {
  return ReadPortOnce(address_, offsetof(sockaddr_in6, sin6_port));
}

void IPv6Socket::Address::SetPort(unsigned short port) {
  Store<in_port_t>(address_, offsetof(sockaddr_in6, sin6_port), htons(port));
}

in6_addr IPv6Socket::Address::Addr() const {
  return Load<in6_addr>(address_, offsetof(sockaddr_in6, sin6_addr));
}

void IPv6Socket::Address::SetAddr(in6_addr const& addr) {
  Store<in6_addr>(address_, offsetof(sockaddr_in6, sin6_addr), addr);
}
