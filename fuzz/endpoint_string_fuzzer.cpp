// Feeds arbitrary endpoint strings to Socket::GetParameterInfo. The parser must never
// crash, and what it accepts must satisfy the invariants its callers rely on.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <map>
#include <string>

#include "kt/Socket.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string endpoint(reinterpret_cast<const char*>(data), size);
  std::string host;
  std::string service;
  int family = -1;
  int type = -1;
  std::map<std::string, std::string> options;
  if (!Socket::GetParameterInfo(endpoint, host, service, family, type, options)) return 0;

  // An accepted endpoint string always names a host and a known family and type.
  if (host.empty()) abort();
  if (family != AF_UNSPEC && family != AF_INET && family != AF_INET6 && family != AF_LOCAL) abort();
  if (type != 0 && type != SOCK_STREAM && type != SOCK_DGRAM) abort();
  // Nothing is invented: the parts are made of the endpoint string's own characters.
  if (host.size() > size && host != "localhost") abort();
  if (service.size() > size) abort();

  // The shorter forms agree with the full one.
  std::string host2;
  unsigned short port = 0;
  int family2 = -1;
  int type2 = -1;
  if (!Socket::GetParameterInfo(endpoint, host2, port, family2, type2)) abort();
  if (host2 != host || family2 != family || type2 != type) abort();
  return 0;
}
