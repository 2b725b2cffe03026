// The endpoint-string parser: "family#type$host:service(options)" into its parts.
#include <errno.h>

#include <map>
#include <string>

#include "SocketPrivate.h"
#include "kt/Socket.h"

using kt::socket_internal::IsAllDigits;
using kt::socket_internal::LocalPrefixLength;
using kt::socket_internal::UpperCase;

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

bool Socket::GetParameterInfo(std::string endpoint, std::string& host, std::string& service,
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
  for (const char c : endpoint) {
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

bool Socket::GetParameterInfo(std::string endpoint, std::string& host, std::string& service,
                              int& family, int& type) {
  std::map<std::string, std::string> options;
  return GetParameterInfo(endpoint, host, service, family, type, options);
}

bool Socket::GetParameterInfo(std::string endpoint, std::string& host, std::string& service) {
  int family = 0;
  int type = 0;
  return GetParameterInfo(endpoint, host, service, family, type);
}

bool Socket::GetParameterInfo(std::string endpoint, std::string& host, unsigned short& port,
                              int& family, int& type) {
  std::string service;
  if (!GetParameterInfo(endpoint, host, service, family, type)) return false;
  port = GetServiceByName(service, ProtocolOfType(type));
  return true;
}

bool Socket::GetParameterInfo(std::string endpoint, std::string& host, unsigned short& port) {
  int family = 0;
  int type = 0;
  return GetParameterInfo(endpoint, host, port, family, type);
}
