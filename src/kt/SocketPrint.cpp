// Stream printers of the socket types; the error codes print with their texts (SocketErrors.cpp).
#include <netdb.h>

#include <map>
#include <ostream>
#include <string>

#include "kt/Socket.h"

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
