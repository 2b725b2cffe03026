// The static services of Socket that need no descriptor: host, service and address lookups, the
// specification-string parser, the DSCP table, the error codes and the stream printers.
#include <errno.h>
#include <netdb.h>
#include <stddef.h>
#include <string.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>

#include "kt/Socket.h"

namespace {

// The resolver's last result code, per thread like errno.
thread_local int gLookupError = 0;

bool IsAllDigits(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

std::string UpperCase(std::string text) {
  for (char& c : text) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  return text;
}

const char* ProtocolOrNull(const std::string& protocol) {
  return protocol.empty() ? nullptr : protocol.c_str();
}

// Hosts that name a local-domain socket, and the length of their prefix.
size_t LocalPrefixLength(const std::string& host) {
  if (host.compare(0, 6, "/local") == 0) return 6;
  if (host.compare(0, 5, "/unix") == 0) return 5;
  return 0;
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

// DSCP

namespace {

struct DscpName {
  const char* name;
  int number;
};

const DscpName kDscpTable[] = {
    {"DEFAULT", 0}, {"CS1", 8},   {"AF11", 10}, {"AF12", 12}, {"AF13", 14}, {"CS2", 16},
    {"AF21", 18},   {"AF22", 20}, {"AF23", 22}, {"CS3", 24},  {"AF31", 26}, {"AF32", 28},
    {"AF33", 30},   {"CS4", 32},  {"AF41", 34}, {"AF42", 36}, {"AF43", 38}, {"CS5", 40},
    {"EF", 46},     {"CS6", 48},  {"CS7", 56},
};

}  // namespace

int Socket::GetDscpByName(std::string name) {
  const std::string upper = UpperCase(name);
  for (const DscpName& entry : kDscpTable) {
    if (upper == entry.name) return entry.number;
  }
  if (!IsAllDigits(name)) return -1;
  // At most two digits can be below 64; leading zeros are allowed.
  const size_t first = name.find_first_not_of('0');
  if (first == std::string::npos) return 0;
  if (name.size() - first > 2) return -1;
  const int value = std::stoi(name.substr(first));
  return value < 64 ? value : -1;
}

std::string Socket::GetDscpByNumber(int n) {
  for (const DscpName& entry : kDscpTable) {
    if (entry.number == n) return entry.name;
  }
  if (n >= 0 && n < 64) return std::to_string(n);
  return std::string();
}

// Errors

Socket::error_t Socket::FromOSError(int error) {
  switch (error) {
    case 0:
      return Success;
    case EMFILE:
    case ENOBUFS:
      return NoResources;
    case EBADF:
    case ENOTSOCK:
      return InvalidHandle;
    case EFAULT:
    case EINVAL:
    case EDESTADDRREQ:
    case EMSGSIZE:
      return InvalidArgument;
    case EALREADY:
      return NotAllowed;
    case EPERM:
    case EACCES:
      return PermissionDenied;
    // ENOTSUP is not listed: it is an unknown error where it differs from EOPNOTSUPP (macOS) and
    // the same number as EOPNOTSUPP elsewhere (Linux).
    case EPROTOTYPE:
    case ENOPROTOOPT:
    case EPROTONOSUPPORT:
    case ESOCKTNOSUPPORT:
    case EPFNOSUPPORT:
    case EAFNOSUPPORT:
    case ESHUTDOWN:
    case EOPNOTSUPP:
      return NotSupported;
    case EADDRINUSE:
      return AddressInUse;
    case EADDRNOTAVAIL:
      return AddressNotAvailable;
    case ENETDOWN:
    case ENETUNREACH:
      return NetworkUnreachable;
    case ENOENT:
      return HostNotFound;
    case EHOSTDOWN:
    case EHOSTUNREACH:
      return HostUnreachable;
    case ETIMEDOUT:
      return TimedOut;
    case ENOTCONN:
      return NotConnected;
    case ECONNREFUSED:
      return ConnectionRefused;
    case ENETRESET:
    case ECONNABORTED:
    case ECONNRESET:
      return ConnectionReset;
    case EPIPE:
      return ConnectionEnded;
    case EINTR:
      return Interrupted;
    case EAGAIN:
#if EWOULDBLOCK != EAGAIN
    case EWOULDBLOCK:
#endif
    case EINPROGRESS:
      return InProgress;
    default:
      return UnknownError;
  }
}

int Socket::ToOSError(error_t e) {
  switch (e) {
    case NoResources:
      return EMFILE;
    case InvalidHandle:
      return ENOTSOCK;
    case InvalidArgument:
      return EINVAL;
    case NotAllowed:
      return EINPROGRESS;
    case PermissionDenied:
      return EACCES;
    case NotSupported:
      return ESOCKTNOSUPPORT;
    case AddressInUse:
      return 0;
    case AddressNotAvailable:
      return EADDRNOTAVAIL;
    case NetworkUnreachable:
      return ENETUNREACH;
    case HostNotFound:
      return ENOENT;
    case HostUnreachable:
      return EHOSTUNREACH;
    case TimedOut:
      return ETIMEDOUT;
    case NotConnected:
      return ENOTCONN;
    case ConnectionRefused:
      return ECONNREFUSED;
    case ConnectionReset:
      return ECONNRESET;
    case ConnectionEnded:
      return EPIPE;
    case Interrupted:
      return EINTR;
    case InProgress:
      return EAGAIN;
    default:
      return 0;
  }
}

// Specification strings

namespace {

bool ParseFamily(const std::string& keyword, int& family) {
  const std::string k = UpperCase(keyword);
  if (k.empty()) return true;
  if (k == "*" || k == "UNSPEC" || k == "AF_UNSPEC" || k == "PF_UNSPEC") {
    family = AF_UNSPEC;
  } else if (k == "IP" || k == "IPV4" || k == "INET" || k == "AF_INET" || k == "PF_INET") {
    family = AF_INET;
  } else if (k == "IPV6" || k == "INET6" || k == "AF_INET6" || k == "PF_INET6") {
    family = AF_INET6;
  } else if (k == "LOCAL" || k == "AF_LOCAL" || k == "PF_LOCAL" || k == "UNIX" || k == "AF_UNIX" ||
             k == "PF_UNIX") {
    family = AF_LOCAL;
  } else {
    return false;
  }
  return true;
}

bool ParseType(const std::string& keyword, int& type) {
  const std::string k = UpperCase(keyword);
  if (k.empty()) return true;
  if (k == "*") {
    type = 0;
  } else if (k == "STREAM" || k == "SOCK_STREAM" || k == "TCP") {
    type = SOCK_STREAM;
  } else if (k == "DGRAM" || k == "SOCK_DGRAM" || k == "UDP") {
    type = SOCK_DGRAM;
  } else {
    return false;
  }
  return true;
}

// "key=value,key2,..." into options; a key without "=" gets an empty value.
void ParseOptions(const std::string& text, std::map<std::string, std::string>& options) {
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find(',', start);
    if (end == std::string::npos) end = text.size();
    const std::string item = text.substr(start, end - start);
    if (!item.empty()) {
      const size_t equals = item.find('=');
      if (equals == std::string::npos) {
        options[item] = std::string();
      } else {
        options[item.substr(0, equals)] = item.substr(equals + 1);
      }
    }
    start = end + 1;
  }
}

const char* ProtocolOfType(int type) {
  if (type == SOCK_STREAM) return "tcp";
  if (type == SOCK_DGRAM) return "udp";
  return "";
}

bool Malformed() {
  errno = EINVAL;
  return false;
}

}  // namespace

bool Socket::GetParameterInfo(std::string spec, std::string& host, std::string& service,
                              int& family, int& type, std::map<std::string, std::string>& options) {
  host.clear();
  service.clear();
  family = 0;
  type = 0;
  options.clear();

  std::string token;
  bool hostGiven = false;
  bool serviceClosed = false;  // the service was ended by "("
  int depth = 0;               // bracket nesting; only the outer pair is dropped
  for (const char c : spec) {
    if (depth > 0) {
      if (c == '[') {
        ++depth;
        token += c;
      } else if (c == ']') {
        if (--depth > 0) token += c;
      } else {
        token += c;
      }
      continue;
    }
    switch (c) {
      case '[':
        depth = 1;
        break;
      case '#':
        if (!ParseFamily(token, family)) return Malformed();
        token.clear();
        break;
      case '$':
        if (!ParseType(token, type)) return Malformed();
        token.clear();
        break;
      case ':':
        host = token;
        hostGiven = true;
        token.clear();
        break;
      case '(':
        service = token;
        serviceClosed = true;
        token.clear();
        break;
      case ')':
        ParseOptions(token, options);
        token.clear();
        break;
      default:
        token += c;
        break;
    }
  }
  if (depth > 0) return Malformed();

  if (serviceClosed) {
    if (!token.empty()) return Malformed();
  } else if (!hostGiven && !token.empty()) {
    // A lone token is a service when it names a port, else a host.
    if (token == "*" || IsAllDigits(token) || GetServiceByName(token, ProtocolOfType(type)) != 0) {
      service = token;
    } else {
      host = token;
    }
  } else {
    service = token;
  }

  if (host.empty()) host = "localhost";
  if (family == AF_UNSPEC && LocalPrefixLength(host) != 0) family = AF_LOCAL;
  return true;
}

bool Socket::GetParameterInfo(std::string spec, std::string& host, std::string& service,
                              int& family, int& type) {
  std::map<std::string, std::string> options;
  return GetParameterInfo(spec, host, service, family, type, options);
}

bool Socket::GetParameterInfo(std::string spec, std::string& host, std::string& service) {
  int family = 0;
  int type = 0;
  return GetParameterInfo(spec, host, service, family, type);
}

bool Socket::GetParameterInfo(std::string spec, std::string& host, unsigned short& port,
                              int& family, int& type) {
  std::string service;
  if (!GetParameterInfo(spec, host, service, family, type)) return false;
  port = GetServiceByName(service, ProtocolOfType(type));
  return true;
}

bool Socket::GetParameterInfo(std::string spec, std::string& host, unsigned short& port) {
  int family = 0;
  int type = 0;
  return GetParameterInfo(spec, host, port, family, type);
}

// Stream printers

namespace {

const char* const kErrorTexts[] = {
    "Success",
    "Insufficient system resources",
    "Invalid socket handle",
    "Missing or invalid argument",
    "Operation not allowed",
    "Permission denied",
    "Unsupported operation or parameter",
    "Requested address in Use",
    "Cannot assign requested address",
    "Network is unreachable",
    "Host not found",
    "Host is unreachable",
    "Operation timed-out",
    "Socket not connected",
    "Connection refused",
    "Connection reset",
    "Connection ended",
    "Interrupted function call",
    "Nonblocking function in progress",
    "Unknown error",
};

}  // namespace

std::ostream& operator<<(std::ostream& out, Socket::error_t e) {
  const int code = static_cast<int>(e);
  if (code >= 0 && code < static_cast<int>(sizeof(kErrorTexts) / sizeof(kErrorTexts[0]))) {
    return out << kErrorTexts[code];
  }
  return out << "Unknown error " << code;
}

std::ostream& operator<<(std::ostream& out, Socket::Address const& address) {
  std::string host;
  std::string service;
  if (Socket::GetNameInfo(address, host, service, NI_NUMERICHOST | NI_NUMERICSERV)) {
    out << host << " " << service;
  }
  return out;
}

std::ostream& operator<<(std::ostream& out, Socket::AddressType type) {
  switch (type) {
    case Socket::Stream:
      return out << "Stream";
    case Socket::Datagram:
      return out << "Datagram";
  }
  return out << static_cast<int>(type);
}

std::ostream& operator<<(std::ostream& out, Socket::AddressFamily family) {
  switch (family) {
    case Socket::IPv4:
      return out << "IPv4";
    case Socket::IPv6:
      return out << "IPv6";
  }
  return out << static_cast<int>(family);
}

std::ostream& operator<<(std::ostream& out, std::map<std::string, std::string> const& options) {
  bool first = true;
  for (const auto& entry : options) {
    if (!first) out << ", ";
    first = false;
    out << '"' << entry.first << "\"=\"" << entry.second << '"';
  }
  return out;
}
