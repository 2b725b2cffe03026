// Allocation helpers shared by the XML sources. Every XML node and attribute is allocated in
// xml.cpp with the source tag "xml" and the line of the allocating statement; the parser and the
// file loader go through these helpers so that the tags stay unique.
#ifndef KT_XML_INTERNAL_H
#define KT_XML_INTERNAL_H

#include <string>

#include "kt/xml.h"

namespace kt {
namespace xml_internal {

// A new empty element of `type`. Throws std::bad_alloc.
XMLElement* NewElement(XMLType type);

// A new empty element of `type` appended to `parent`'s children. Throws std::bad_alloc (nothing is
// appended then).
XMLElement* AppendChild(XMLElement& parent, XMLType type);

// Appends a new attribute to `e` (a same-named one stays). Throws std::bad_alloc.
void AppendAttribute(XMLElement& e, std::string name, std::string value);

// Destroys `e` (null is ignored) and returns its storage.
void DeleteElement(XMLElement* e) noexcept;

}  // namespace xml_internal
}  // namespace kt

#endif  // KT_XML_INTERNAL_H
