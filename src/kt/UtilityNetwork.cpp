// Network addresses: the outgoing interface's address, the default database connector, local
// bridge connectors and RTSP ports.
#include <unistd.h>

#include "kt/Socket.h"
#include "kt/Utility.h"

namespace kt {

namespace {

// Where MyIP sends its probe, whatever the caller passes: a private address that needs no name
// lookup, and an arbitrary port.
constexpr char kProbeHost[] = "192.168.1.1";
constexpr char kProbeService[] = "10000";

}  // namespace

bool MyIP(std::string& ip, const char*, int) {
  ip.clear();
  Socket socket;
  if (!socket.Open(AF_INET, SOCK_DGRAM, 0)) return false;
  // A datagram connect sends nothing: it only picks the outgoing interface.
  if (!socket.Connect(kProbeHost, kProbeService, SOCK_DGRAM)) return false;
  // Numeric: a name lookup here would query the resolver and could answer with a name.
  std::string service;
  if (!socket.GetSockName(ip, service, true)) ip.clear();
  return !ip.empty();
}

std::string GetDefaultDatabaseUrl() { return "kt://%2Flocal:%2Ftmp%2Fpmx-db"; }

// Local bridge connectors

std::string GetBridgeConnectorFile(std::string const& name) { return "/tmp/" + name; }

std::string GetBridgeConnector(std::string const& name) {
  return "/local:" + GetBridgeConnectorFile(name);
}

std::string GetUniqueBridgeConnector() {
  return GetBridgeConnector("bridge-" + std::to_string(getpid()) + "-" +
                            GenerateRandomAlphaNumericString(8));
}

std::string InsertPortStringIfNotPresent(std::string const& url, unsigned short port) {
  static const std::string kScheme = "rtsp://";
  if (url.compare(0, kScheme.size(), kScheme) != 0) return url;
  const size_t hostStart = kScheme.size();
  size_t hostEnd = url.find('/', hostStart);
  if (hostEnd == std::string::npos) hostEnd = url.size();
  const std::string authority = url.substr(hostStart, hostEnd - hostStart);
  // A port follows the last ":" of the authority, unless that ":" is inside an IPv6 bracket.
  const size_t colon = authority.rfind(':');
  const size_t bracket = authority.rfind(']');
  const bool hasPort =
      colon != std::string::npos && (bracket == std::string::npos || colon > bracket);
  if (hasPort || authority.empty()) return url;
  return url.substr(0, hostEnd) + ":" + std::to_string(port) + url.substr(hostEnd);
}

}  // namespace kt
