#include "meeting/EventRouting.h"

#include <cstring>
#include <exception>

#include "meeting/Logging.h"

namespace Telmora {

namespace {

// The one line logged for an event dropped at the engine boundary; never throws.
void logDropped(const char* prefix, const char* reason) noexcept {
  try {
    logLine(std::string(prefix) + "dropped an event: " + reason);
  } catch (...) {
  }
}

}  // namespace

void routeEvent(const char* text, const char* missingEvent, const char* missingName,
                const char* boundaryPrefix,
                void (*route)(kt::XMLElement* event, const std::string& name)) {
  try {
    kt::XMLElement root;
    if (text != nullptr) kt::ParseXMLBuffer(text, std::strlen(text), root);
    kt::XMLElement* event = root.FindElementByName("event");
    if (event == nullptr) {
      logLine(missingEvent);
      return;
    }
    const kt::XMLAttribute* name = event->FindAttributeByName("name");
    if (name == nullptr) {
      logLine(missingName);
      return;
    }
    route(event, name->value);
  } catch (const std::exception& e) {
    logDropped(boundaryPrefix, e.what());
  } catch (...) {
    logDropped(boundaryPrefix, "unknown exception");
  }
}

// The "stream" element of an event and its "id"; logs the handler's message for what is missing.
const kt::XMLElement* findStream(kt::XMLElement* event, const char* handler, std::string& id) {
  const kt::XMLElement* stream = event->FindElementByName("stream");
  if (stream == nullptr) {
    logLine(std::string("Convoke: ") + handler + ": could not find stream element");
    return nullptr;
  }
  const kt::XMLAttribute* attribute = stream->FindAttributeByName("id");
  if (attribute == nullptr) {
    logLine(std::string("Convoke: ") + handler + ": could not find stream id");
    return nullptr;
  }
  id = attribute->value;
  return stream;
}

}  // namespace Telmora
