#include "meeting/EventRouting.h"

#include <cstring>
#include <exception>

#include "meeting/Logging.h"

namespace Telmora {

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
    logLine(std::string(boundaryPrefix) + "dropped an event: " + e.what());
  } catch (...) {
    logLine(std::string(boundaryPrefix) + "dropped an event: unknown exception");
  }
}

}  // namespace Telmora
