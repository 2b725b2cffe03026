#include "address.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ktengine/meeting_url.h"

namespace ktopen {

bool ParseTarget(const std::string& url, char engine, const std::string& port,
                 const std::string& path, Target* target, std::string* error) {
  ktengine::MeetingUrl parsed;
  // The host goes into an HTTP URL: nothing that would change that URL's meaning, and no IPv6.
  if (!ktengine::ParseMeetingUrl(url, engine, &parsed) ||
      parsed.server.find_first_of("[]@?#% \t") != std::string::npos) {
    *error = "Invalid server URL '" + url + "'";
    return false;
  }
  const std::string http_port = port.empty() ? "8088" : port;
  if (http_port.size() > 5 || http_port.find_first_not_of("0123456789") != std::string::npos ||
      std::stoi(http_port) < 1 || std::stoi(http_port) > 65535) {
    *error = "Invalid meeting server port '" + http_port + "' (CONVOKE_JANUS_PORT)";
    return false;
  }
  std::string http_path = path.empty() ? "/janus" : path;
  if (http_path[0] != '/') http_path = "/" + http_path;
  if (http_path.find_first_of("?# \t") != std::string::npos) {
    *error = "Invalid meeting server path '" + http_path + "' (CONVOKE_JANUS_PATH)";
    return false;
  }
  target->host = parsed.server;
  target->room = parsed.meeting;
  target->base_url = "http://" + parsed.server + ":" + http_port + http_path;
  return true;
}

bool ResolveAddresses(const std::string& host, std::string* server_ip, std::string* local_ip,
                      std::string* error) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), "9", &hints, &found) != 0 || !found) {
    *error = "Unknown meeting server '" + host + "'";
    return false;
  }
  char text[INET_ADDRSTRLEN] = {0};
  inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_addr, text, sizeof text);
  *server_ip = text;
  // Connecting a datagram socket only asks the kernel for the route.
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  bool ok = fd >= 0 && connect(fd, found->ai_addr, found->ai_addrlen) == 0;
  sockaddr_in local{};
  socklen_t size = sizeof local;
  ok = ok && getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size) == 0;
  if (fd >= 0) close(fd);
  freeaddrinfo(found);
  if (!ok) {
    *error = "No route to the meeting server '" + host + "'";
    return false;
  }
  inet_ntop(AF_INET, &local.sin_addr, text, sizeof text);
  *local_ip = text;
  return true;
}

}  // namespace ktopen
