// The open engines' reading of what the meeting server sends: a message as the long poll delivers
// it (JSON), the publishers it announces or says have left, and the event documents built from a
// publisher's id and display name, which must hold nothing but their text whatever the peer chose.
#include <cstddef>
#include <cstdint>
#include <string>

#include "documents.h"
#include "janus.h"
#include "peer_names.h"

namespace {

void Require(bool condition) {
  if (!condition) __builtin_trap();
}

size_t Count(const std::string& text, char c) {
  size_t n = 0;
  for (char x : text) n += x == c;
  return n;
}

void CheckDocuments(const std::string& id, const std::string& display) {
  const std::string base = ktopen::StreamBase(id);
  Require(!base.empty() && base.size() <= ktopen::kMaxStreamBase);
  for (unsigned char c : base) Require(c > 0x20 && c < 0x7f && c != '<' && c != '&' && c != '"');
  const std::string name = ktopen::CleanName(display);
  Require(name.size() <= ktopen::kMaxNameBytes);
  for (unsigned char c : name) Require(c >= 0x20 && c != 0x7f);
  const std::string document = ktengine::StreamEvent(
      "audio_site_changed", base + "/audio",
      ktengine::Tag("site", name) + ktengine::Tag("email", ktopen::CleanName(id)));
  Require(Count(document, '<') == 8 && Count(document, '>') == 8);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  // The raw bytes as an id and a name.
  CheckDocuments(text, text);
  std::string error;
  ktopen::Json message = ktopen::Json::Parse(text, &error);
  if (message.empty()) return 0;
  JsonObject* root = message.object();
  JsonObject* body = ktopen::ObjectMember(ktopen::ObjectMember(root, "plugindata"), "data");
  for (const ktopen::RoomPublisher& publisher : ktopen::AnnouncedPublishers(body)) {
    CheckDocuments(publisher.id, publisher.display);
  }
  ktopen::DepartedPublisher(body);
  ktopen::StringMember(ktopen::ObjectMember(root, "jsep"), "sdp");
  ktopen::IntMember(ktopen::ObjectMember(root, "error"), "code");
  return 0;
}
