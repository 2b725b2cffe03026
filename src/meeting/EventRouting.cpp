#include "meeting/EventRouting.h"

#include <cstring>
#include <exception>

namespace Telmora {

namespace {

// The one line logged for an event dropped at the engine boundary; never throws.
void logDropped(const char* prefix, const char* reason) noexcept {
  try {
    logLine(std::string(prefix) + "dropped an event: " + reason);
  } catch (...) {
  }
}

// The scan of a canonical document, when its event has a route: returns true once the handler ran.
bool routeFlat(const char* text, std::size_t length, const EngineRouter& router) {
  FlatEvent document;
  if (!document.scan(text, length)) return false;
  FlatEvent::Node event = document.root();
  Text name;
  if (!FlatEvent::nameEquals(event->name, "event") || !document.attribute(event, "name", name)) {
    return false;  // the tree path logs what is missing
  }
  return router.routeFlat(document, event, name);
}

void routeTree(const char* text, std::size_t length, const EngineRouter& router) {
  kt::XMLElement root;
  if (text != nullptr) kt::ParseXMLBuffer(text, length, root);
  kt::XMLElement* event = root.FindElementByName("event");
  if (event == nullptr) {
    logLine(router.missingEvent);
    return;
  }
  const kt::XMLAttribute* name = event->FindAttributeByName("name");
  if (name == nullptr) {
    logLine(router.missingName);
    return;
  }
  router.route(event, name->value);
}

}  // namespace

void routeEvent(const char* text, const EngineRouter& router, EventPath path) {
  try {
    const std::size_t length = text != nullptr ? std::strlen(text) : 0;
    if (path == EventPath::kFastWhenCanonical && text != nullptr &&
        routeFlat(text, length, router)) {
      return;
    }
    routeTree(text, length, router);
  } catch (const std::exception& e) {
    logDropped(router.boundaryPrefix, e.what());
  } catch (...) {
    logDropped(router.boundaryPrefix, "unknown exception");
  }
}

void logMissingStream(const char* handler, bool element) {
  logLine(std::string("Convoke: ") + handler +
          (element ? ": could not find stream element" : ": could not find stream id"));
}

}  // namespace Telmora
