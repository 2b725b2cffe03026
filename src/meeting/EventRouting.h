// Shared plumbing of the two engine event callbacks: parsing an event document, finding the event
// element and its name, and the small readers the handlers use.
#ifndef CONVOKE_MEETING_EVENTROUTING_H
#define CONVOKE_MEETING_EVENTROUTING_H

#include <cstddef>
#include <cstdlib>
#include <string>

#include "kt/xml.h"

namespace Telmora {

// One route of an engine's event table: an event name and the handler it selects (null: the event
// is recognised and dropped).
template <class Handlers>
struct EventRoute {
  const char* name;
  std::size_t length;
  bool (Handlers::*handler)(kt::XMLElement*);
};

#define CONVOKE_ROUTE(Handlers, name, handler) \
  ::Telmora::EventRoute<Handlers> { name, sizeof(name) - 1, handler }

// Calls the handler of the first route whose name equals name exactly (length first, then the
// bytes) on handlers. Returns false when no route matches; a route without a handler drops the
// event.
template <class Handlers, std::size_t N>
bool dispatchByName(const EventRoute<Handlers> (&routes)[N], Handlers* handlers,
                    kt::XMLElement* event, const std::string& name) {
  for (const EventRoute<Handlers>& route : routes) {
    if (name.size() == route.length && name.compare(0, route.length, route.name) == 0) {
      if (route.handler != nullptr) (handlers->*route.handler)(event);
      return true;
    }
  }
  return false;
}

// Parses text and hands the "event" element with its name to route(event, name). The messages are
// the engine's own: missingEvent when there is no event element, missingName when it has no name.
// Every exception (a malformed number, an allocation failure) is caught here and logged with
// boundaryPrefix, so that nothing escapes into the engine.
void routeEvent(const char* text, const char* missingEvent, const char* missingName,
                const char* boundaryPrefix,
                void (*route)(kt::XMLElement* event, const std::string& name));

// The "stream" element of an event, with its "id" attribute's value in id. When either is missing,
// logs "Convoke: <handler>: could not find stream element" (or "... stream id") and returns null.
const kt::XMLElement* findStream(kt::XMLElement* event, const char* handler, std::string& id);

// atoi of an element's text.
inline int elementNumber(const kt::XMLElement* element) {
  return std::atoi(element->value.c_str());
}

// atoi of a child element's text, 0 when the child is missing.
inline int childNumber(const kt::XMLElement* parent, const char* name) {
  const kt::XMLElement* child = parent->FindElementByName(name);
  return child != nullptr ? elementNumber(child) : 0;
}

// atoi of an attribute's value, 0 when the element or the attribute is missing.
inline int attributeNumber(const kt::XMLElement* element, const char* name) {
  if (element == nullptr) return 0;
  const kt::XMLAttribute* attribute = element->FindAttributeByName(name);
  return attribute != nullptr ? std::atoi(attribute->value.c_str()) : 0;
}

}  // namespace Telmora

#endif  // CONVOKE_MEETING_EVENTROUTING_H
