// ktengine/meeting_url.h - the address the product gives an engine's Connect:
// rtsp://<server>:46000/kt.sdp/<4 or 6>/<meeting id>[?options], 4 for the audio engine and 6 for
// the video engine. Shared by the simulated and the open engines (C++ only, header only).
#ifndef KTENGINE_MEETING_URL_H
#define KTENGINE_MEETING_URL_H

#include <string>

namespace ktengine {

struct MeetingUrl {
  std::string server;   // a name, an IPv4 address or a bracketed IPv6 address
  std::string meeting;  // never empty
  std::string query;    // what follows the first '?' of the meeting part ("" when none)
};

// Splits `url` for the engine whose path digit is `engine` ('4' or '6'). False when the URL is not
// of that form: another scheme or port, the other engine's digit, an empty server, a server with a
// '/' or an unbracketed ':', or an empty meeting id.
inline bool ParseMeetingUrl(const std::string& url, char engine, MeetingUrl* out) {
  const std::string scheme = "rtsp://", port = ":46000/kt.sdp/";
  const size_t at = url.find(port);
  if (url.compare(0, scheme.size(), scheme) != 0 || at == std::string::npos ||
      at <= scheme.size()) {
    return false;
  }
  const std::string server = url.substr(scheme.size(), at - scheme.size());
  const bool bracketed = server.front() == '[' && server.back() == ']';
  if (server.find('/') != std::string::npos ||
      (!bracketed && server.find(':') != std::string::npos)) {
    return false;
  }
  const size_t digit = at + port.size();
  const size_t id_at = digit + 2;
  if (digit + 1 >= url.size() || url[digit] != engine || url[digit + 1] != '/' ||
      id_at >= url.size() || url[id_at] == '?') {
    return false;
  }
  const std::string rest = url.substr(id_at);
  const size_t q = rest.find('?');
  out->server = server;
  out->meeting = rest.substr(0, q);
  out->query = q == std::string::npos ? "" : rest.substr(q + 1);
  return true;
}

}  // namespace ktengine

#endif  // KTENGINE_MEETING_URL_H
