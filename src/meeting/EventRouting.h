// Shared plumbing of the two engine event callbacks: reading an event document, finding the event
// element and its name, dispatching by name, and the small readers the handlers use.
//
// Every handler is written once, as a template over the document type (EventDocument.h), and runs
// either on the parsed tree or on a scan of the engine's text in place. routeEvent takes the scan
// when the text is in the engines' canonical shape and the event's name has a route, and parses a
// tree otherwise; both run the same handler code, so they log, update and report the same.
#ifndef CONVOKE_MEETING_EVENTROUTING_H
#define CONVOKE_MEETING_EVENTROUTING_H

#include <cstddef>
#include <string>

#include "kt/xml.h"
#include "meeting/EventDocument.h"
#include "meeting/Logging.h"

namespace Telmora {

// One route of an engine's event table: an event name and its handler on either document (both
// null: the event is recognised and dropped).
template <class Handlers>
struct EventRoute {
  const char* name;
  std::size_t length;
  bool (Handlers::*handler)(kt::XMLElement*);
  bool (*flatHandler)(Handlers*, const FlatEvent&, FlatEvent::Node);
};

// A route to the member handler, whose body is handler##On<Document>.
#define CONVOKE_ROUTE(Handlers, name, handler)                                         \
  ::Telmora::EventRoute<Handlers> {                                                    \
    name, sizeof(name) - 1, &Handlers::handler,                                        \
        [](Handlers* h, const ::Telmora::FlatEvent& d, ::Telmora::FlatEvent::Node e) { \
          return h->handler##On(d, e);                                                 \
        }                                                                              \
  }
#define CONVOKE_DROPPED_ROUTE(Handlers, name) \
  ::Telmora::EventRoute<Handlers> { name, sizeof(name) - 1, nullptr, nullptr }

// The first route whose name equals name exactly (length first, then the bytes), or null.
template <class Handlers, std::size_t N>
const EventRoute<Handlers>* findRoute(const EventRoute<Handlers> (&routes)[N], const char* name,
                                      std::size_t length) {
  for (const EventRoute<Handlers>& route : routes) {
    if (length == route.length && std::char_traits<char>::compare(name, route.name, length) == 0) {
      return &route;
    }
  }
  return nullptr;
}

// Calls the tree handler of the route named name on handlers. Returns false when no route matches;
// a route without a handler drops the event.
template <class Handlers, std::size_t N>
bool dispatchByName(const EventRoute<Handlers> (&routes)[N], Handlers* handlers,
                    kt::XMLElement* event, const std::string& name) {
  const EventRoute<Handlers>* route = findRoute(routes, name.data(), name.size());
  if (route == nullptr) return false;
  if (route->handler != nullptr) (handlers->*route->handler)(event);
  return true;
}

// The same on a scanned document.
template <class Handlers, std::size_t N>
bool dispatchFlat(const EventRoute<Handlers> (&routes)[N], Handlers* handlers,
                  const FlatEvent& document, FlatEvent::Node event, const Text& name) {
  const EventRoute<Handlers>* route = findRoute(routes, name.data, name.size);
  if (route == nullptr) return false;
  if (route->flatHandler != nullptr) route->flatHandler(handlers, document, event);
  return true;
}

// One engine's callback: its messages and its routes. missingEvent is logged when there is no
// event element, missingName when it has no name; boundaryPrefix begins the line logged for an
// exception caught at the boundary.
struct EngineRouter {
  const char* missingEvent;
  const char* missingName;
  const char* boundaryPrefix;
  // Routes by name on the tree; logs an unhandled name.
  void (*route)(kt::XMLElement* event, const std::string& name);
  // Routes by name on a scan; false (having done nothing) when the name has no route.
  bool (*routeFlat)(const FlatEvent& document, FlatEvent::Node event, const Text& name);
};

// Which way routeEvent may read a document.
enum class EventPath {
  kFastWhenCanonical,  // the scan when the text is canonical and routed, else the tree
  kTreeOnly,           // always the tree (the reference)
};

// Reads text and hands the "event" element with its name to the router. Every exception (a
// malformed number, an allocation failure) is caught here and logged, so that nothing escapes into
// the engine.
void routeEvent(const char* text, const EngineRouter& router, EventPath path);

// A fixed log line (no copy of the text is made before it reaches the log sink).
inline void logFixed(const char* text) { loggingCallback(kLogLevel, text); }

// The "stream" element of an event, with its "id" attribute's value in id. When either is missing,
// logs "Convoke: <handler>: could not find stream element" (or "... stream id") and returns null.
void logMissingStream(const char* handler, bool element);
template <class Document>
typename Document::Node findStream(const Document& document, typename Document::Node event,
                                   const char* handler, std::string& id) {
  typename Document::Node stream = document.child(event, "stream");
  Text value;
  if (stream == nullptr || !document.attribute(stream, "id", value)) {
    logMissingStream(handler, stream == nullptr);
    return nullptr;
  }
  id.assign(value.data, value.size);
  return stream;
}

// atoi of a child element's text, 0 when the child is missing.
template <class Document>
int childNumber(const Document& document, typename Document::Node parent, const char* name) {
  typename Document::Node child = document.child(parent, name);
  return child != nullptr ? document.text(child).number() : 0;
}

// atoi of an attribute's value, 0 when the element or the attribute is missing.
template <class Document>
int attributeNumber(const Document& document, typename Document::Node element, const char* name) {
  Text value;
  if (element == nullptr || !document.attribute(element, name, value)) return 0;
  return value.number();
}

// The figures both engines report in a "conditions" element, into the fields of the same names
// that AudioCondition and VideoCondition share.
template <class Document, class Condition>
void readLinkFigures(const Document& document, typename Document::Node conditions,
                     Condition& condition) {
  condition.received = childNumber(document, conditions, "received");
  condition.sent = childNumber(document, conditions, "sent");
  condition.dataBytesDropped = childNumber(document, conditions, "data_bytes_dropped");
  condition.ctrlBytesDropped = childNumber(document, conditions, "ctrl_bytes_dropped");
  condition.cpuUsage = childNumber(document, conditions, "cpu_usage");
  condition.bars = childNumber(document, conditions, "bars");
}

}  // namespace Telmora

#endif  // CONVOKE_MEETING_EVENTROUTING_H
