// Host, service and address lookups over the resolver.
#include <errno.h>
#include <netdb.h>
#include <stddef.h>
#include <string.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

#include "SocketPrivate.h"
#include "kt/Socket.h"

using kt::socket_internal::IsAllDigits;
using kt::socket_internal::LocalPrefixLength;

namespace {

// The resolver's last result code, per thread like errno.
thread_local int gLookupError = 0;

const char* ProtocolOrNull(const std::string& protocol) {
  return protocol.empty() ? nullptr : protocol.c_str();
}

}  // namespace

std::string Socket::GetHostName() {
  char name[256];
  if (gethostname(name, sizeof(name)) != 0) return "localhost";
  name[sizeof(name) - 1] = '\0';  // a truncated name need not be terminated
  if (name[0] == '\0') return "localhost";
  return name;
}

unsigned short Socket::GetServiceByName(std::string name, std::string protocol) {
  if (name.empty()) return 0;
  if (IsAllDigits(name)) {
    // Decimal text, kept to 16 bits (computed modulo 2^16 so that long texts cannot overflow).
    unsigned value = 0;
    for (char c : name) value = (value * 10 + static_cast<unsigned>(c - '0')) & 0xFFFFu;
    return static_cast<unsigned short>(value);
  }
#ifdef __APPLE__
  const servent* entry = getservbyname(name.c_str(), ProtocolOrNull(protocol));
  return entry == nullptr ? 0 : ntohs(static_cast<uint16_t>(entry->s_port));
#else
  servent storage;
  servent* entry = nullptr;
  char buffer[4096];
  if (getservbyname_r(name.c_str(), ProtocolOrNull(protocol), &storage, buffer, sizeof(buffer),
                      &entry) != 0 ||
      entry == nullptr) {
    return 0;
  }
  return ntohs(static_cast<uint16_t>(entry->s_port));
#endif
}

std::string Socket::GetServiceByNumber(unsigned short port, std::string protocol) {
  const int networkPort = htons(port);
#ifdef __APPLE__
  const servent* entry = getservbyport(networkPort, ProtocolOrNull(protocol));
  if (entry != nullptr && entry->s_name != nullptr) return entry->s_name;
#else
  servent storage;
  servent* entry = nullptr;
  char buffer[4096];
  if (getservbyport_r(networkPort, ProtocolOrNull(protocol), &storage, buffer, sizeof(buffer),
                      &entry) == 0 &&
      entry != nullptr && entry->s_name != nullptr) {
    return entry->s_name;
  }
#endif
  return std::to_string(port);
}

namespace {

bool NameInfo(const Socket::Address& address, std::string& host, std::string* service, int flags) {
  if (address.Family() == AF_LOCAL && address.Length() != 0) {
    // The resolver does not know local-domain addresses: the path is the service.
    const size_t offset = offsetof(sockaddr_un, sun_path);
    std::string path;
    if (address.Length() > offset) {
      const char* text = reinterpret_cast<const char*>(address.Data()) + offset;
      path.assign(text, strnlen(text, address.Length() - offset));
    }
    host = "/local";
    if (service != nullptr) *service = path;
    gLookupError = 0;
    return true;
  }
  if (address.Length() == 0) {
    gLookupError = EAI_FAMILY;
    return false;
  }
  char hostBuffer[1025];
  char serviceBuffer[32];
  Socket::Address copy(address);
#ifdef __APPLE__
  // The BSD resolver checks the length byte against the length argument.
  copy.Data()[0] = static_cast<unsigned char>(std::min(copy.Length(), 255u));
#endif
  const int result = getnameinfo(static_cast<const sockaddr*>(copy), copy.Length(), hostBuffer,
                                 sizeof(hostBuffer), service != nullptr ? serviceBuffer : nullptr,
                                 service != nullptr ? sizeof(serviceBuffer) : 0, flags);
  gLookupError = result;
  if (result != 0) return false;
  host = hostBuffer;
  if (service != nullptr) *service = serviceBuffer;
  return true;
}

}  // namespace

bool Socket::GetNameInfo(Socket::Address address, std::string& host, std::string& service,
                         int flags) {
  return NameInfo(address, host, &service, flags);
}

bool Socket::GetNameInfo(Socket::Address address, std::string& host, int flags) {
  return NameInfo(address, host, nullptr, flags);
}

bool Socket::GetAddressInfo(std::string host, std::string service,
                            std::list<Socket::AddressInfo>& out, int family, int type, int protocol,
                            int passive) {
  out.clear();
  if (const size_t prefix = LocalPrefixLength(host)) {
    const std::string path = !service.empty() ? service : host.substr(prefix);
    const size_t offset = offsetof(sockaddr_un, sun_path);
    if (path.empty() || path.size() >= sizeof(sockaddr_un::sun_path)) {
      gLookupError = EAI_SYSTEM;
      errno = path.empty() ? ENOENT : ENAMETOOLONG;
      return false;
    }
    AddressInfo info;
    info.family = AF_LOCAL;
    info.type = type != 0 ? type : SOCK_STREAM;
    info.protocol = protocol;
    info.address = Address(static_cast<unsigned>(offset + path.size()), AF_LOCAL);
    memcpy(info.address.Data() + offset, path.data(), path.size());
    out.push_back(info);
    gLookupError = 0;
    return true;
  }

  addrinfo hints;
  memset(&hints, 0, sizeof(hints));
  hints.ai_family = family;
  hints.ai_socktype = type;
  hints.ai_protocol = protocol;
  if (passive) hints.ai_flags |= AI_PASSIVE;
  const char* node = (host.empty() || host == "*") ? nullptr : host.c_str();
  const char* port = (service.empty() || service == "*") ? nullptr : service.c_str();
  if (node == nullptr && port == nullptr) port = "0";  // the resolver needs one of the two

  addrinfo* list = nullptr;
  const int result = getaddrinfo(node, port, &hints, &list);
  gLookupError = result;
  if (result != 0) return false;
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    AddressInfo info;
    info.flags = entry->ai_flags;
    info.family = entry->ai_family;
    info.type = entry->ai_socktype;
    info.protocol = entry->ai_protocol;
    info.address = Address(entry->ai_addr, entry->ai_addrlen);
    out.push_back(info);
  }
  freeaddrinfo(list);
  return true;
}

int Socket::GetLookupError() { return gLookupError; }

bool Socket::IpAddress(std::string name, std::string& ip) {
  if (LocalPrefixLength(name) != 0) {
    ip = name;
    return true;
  }
  std::list<AddressInfo> candidates;
  if (!GetAddressInfo(name, "", candidates, AF_UNSPEC, SOCK_DGRAM, 0, 0) || candidates.empty()) {
    return false;
  }
  return GetNameInfo(candidates.front().address, ip, NI_NUMERICHOST | NI_NUMERICSERV);
}

bool Socket::IpAddresses(std::string name, std::list<std::string>& ips) {
  ips.clear();
  if (LocalPrefixLength(name) != 0) {
    ips.push_back(name);
    return true;
  }
  std::list<AddressInfo> candidates;
  if (!GetAddressInfo(name, "", candidates, AF_UNSPEC, SOCK_DGRAM, 0, 0)) return false;
  for (const AddressInfo& candidate : candidates) {
    std::string ip;
    if (!GetNameInfo(candidate.address, ip, NI_NUMERICHOST | NI_NUMERICSERV)) return false;
    ips.push_back(ip);
  }
  return !ips.empty();
}
