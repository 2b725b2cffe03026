// Helpers shared by the XML tests.
#ifndef CONVOKE_TESTS_KT_XMLTESTSUPPORT_H
#define CONVOKE_TESTS_KT_XMLTESTSUPPORT_H

#include <string>

#include "kt/xml.h"

namespace xmltest {

// A one-line picture of a tree: a type mark ("?" declaration, "!" comment, "#" directive), the
// name, "[k=v,...]" for attributes, "=" and the quoted value when it is not empty (control
// characters as \n, \t, \0 ...), then "(child child ...)" for children. Iterative, so deep trees
// can be described.
std::string Describe(const kt::XMLElement& e);

}  // namespace xmltest

#endif  // CONVOKE_TESTS_KT_XMLTESTSUPPORT_H
