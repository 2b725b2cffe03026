// Where a meeting is: the Janus host and room named by the URL the product gives Connect, the
// HTTP API's address on that host, and the local address on the route to it.
#ifndef KTOPEN_ADDRESS_H
#define KTOPEN_ADDRESS_H

#include <string>

namespace ktopen {

struct Target {
  std::string host;      // the Janus host: a name or an IPv4 address
  std::string room;      // the VideoRoom room (the meeting id without its ?options)
  std::string base_url;  // "http://<host>:<port><path>" of the HTTP API
};

// Reads rtsp://<server>:46000/kt.sdp/<4|6>/<meeting> for the engine with that path digit ('4'
// audio, '6' video). The HTTP API's port and path come from `port` and `path` (the environment's
// CONVOKE_JANUS_PORT and CONVOKE_JANUS_PATH, "" for the defaults 8088 and /janus). False with a
// reason when the URL is not of that form or names a server the engines cannot reach by HTTP.
bool ParseTarget(const std::string& url, char engine, const std::string& port,
                 const std::string& path, Target* target, std::string* error);

// The IPv4 address of `host`, and our own address on the route towards it (no packet is sent).
// False with a reason when the name is unknown or no route leads there.
bool ResolveAddresses(const std::string& host, std::string* server_ip, std::string* local_ip,
                      std::string* error);

}  // namespace ktopen

#endif  // KTOPEN_ADDRESS_H
