// The element tree: construction, copy and destruction without recursion, queries, editing, and
// the string utilities of the XML library. Every node and attribute is allocated here.
#include "kt/xml.h"

#include <strings.h>

#include <algorithm>
#include <utility>

#include "xmlPrivate.h"

namespace kt {

namespace {

constexpr const char kSourceTag[] = "xml";

MemoryManager* const* Manager() {
  static MemoryManager* const manager = MemoryManager::Instance();
  return &manager;
}

using ElementConstructor = Constructor<MemoryManager*, XMLElement>;
using AttributeConstructor = Constructor<MemoryManager*, XMLAttribute>;

// Every allocating statement names its own line.
#define KT_ELEMENT_CONSTRUCTOR ElementConstructor(Manager(), kSourceTag, __LINE__)
#define KT_ATTRIBUTE_CONSTRUCTOR AttributeConstructor(Manager(), kSourceTag, __LINE__)

void FreeElement(XMLElement* e) noexcept { KT_ELEMENT_CONSTRUCTOR.Free(e, kSourceTag, __LINE__); }

void FreeAttribute(XMLAttribute* a) noexcept {
  KT_ATTRIBUTE_CONSTRUCTOR.Free(a, kSourceTag, __LINE__);
}

bool NameEquals(const std::string& a, const std::string& b) { return StrCaseCmp(a, b) == 0; }

// Destroys every element of `nodes` with all its descendants, then clears `nodes`. Children are
// detached before their parent is destroyed, so no destructor ever recurses: the work stack holds
// what is left to do, however deep the tree.
void DestroyElements(std::vector<XMLElement*>& nodes) noexcept {
  xml_internal::SmallStack<XMLElement*, 64> pending;
  for (XMLElement* node : nodes) {
    for (;;) {
      if (node->children.empty()) {
        FreeElement(node);
        if (pending.Empty()) break;
        node = pending.Top();
        pending.Pop();
        continue;
      }
      // Take the last child off and come back for the rest later.
      pending.Push(node);
      XMLElement* child = node->children.back();
      node->children.pop_back();
      node = child;
    }
  }
  nodes.clear();
}

void DestroyAttributes(std::vector<XMLAttribute*>& attributes) noexcept {
  for (XMLAttribute* a : attributes) FreeAttribute(a);
  attributes.clear();
}

// Copies the attributes and the descendants of `source` into `target`, level by level from a
// work list instead of by recursion. On an exception what was copied so far stays in `target`.
void CopyContents(const XMLElement& source, XMLElement& target) {
  std::vector<std::pair<const XMLElement*, XMLElement*>> work{{&source, &target}};
  while (!work.empty()) {
    const auto [from, to] = work.back();
    work.pop_back();
    to->attributes.reserve(to->attributes.size() + from->attributes.size());
    for (const XMLAttribute* a : from->attributes) {
      to->attributes.push_back(KT_ATTRIBUTE_CONSTRUCTOR(*a));
    }
    to->children.reserve(to->children.size() + from->children.size());
    for (const XMLElement* child : from->children) {
      XMLElement* copy = KT_ELEMENT_CONSTRUCTOR(child->type, child->name, child->value);
      to->children.push_back(copy);
      if (!child->children.empty() || !child->attributes.empty()) work.emplace_back(child, copy);
    }
  }
}

template <typename T>
bool EraseAt(std::vector<T*>& items, typename std::vector<T*>::iterator at, void (*release)(T*)) {
  T* item = *at;
  items.erase(at);
  release(item);
  return true;
}

}  // namespace

namespace xml_internal {

XMLElement* NewElement(XMLType type) { return KT_ELEMENT_CONSTRUCTOR(type); }

XMLElement* AppendChild(XMLElement& parent, XMLType type) {
  xml_internal::ReserveOneMore(parent.children);
  XMLElement* child = KT_ELEMENT_CONSTRUCTOR(type);
  parent.children.push_back(child);
  return child;
}

void AppendAttribute(XMLElement& e, std::string name, std::string value) {
  xml_internal::ReserveOneMore(e.attributes);
  e.attributes.push_back(KT_ATTRIBUTE_CONSTRUCTOR(std::move(name), std::move(value)));
}

void DeleteElement(XMLElement* e) noexcept { FreeElement(e); }

}  // namespace xml_internal

// --- XMLAttribute ----------------------------------------------------------------------------

XMLAttribute::XMLAttribute(std::string name, std::string value)
    : name(std::move(name)), value(std::move(value)) {}

XMLAttribute::operator std::string() const { return name + "=\"\"" + value + "\"\""; }

// --- XMLElement: construction ----------------------------------------------------------------

XMLElement::XMLElement(XMLType type, const std::string& name, const std::string& value)
    : type(type), name(name), value(value) {}

XMLElement::XMLElement(const std::string& name, const std::string& value, XMLType type)
    : type(type), name(name), value(value) {}

XMLElement::XMLElement(const XMLElement& other)
    : type(other.type), name(other.name), value(other.value) {
  try {
    CopyContents(other, *this);
  } catch (...) {
    DestroyElements(children);
    DestroyAttributes(attributes);
    throw;
  }
}

XMLElement::XMLElement(XMLElement&& other) noexcept
    : children(std::move(other.children)),
      attributes(std::move(other.attributes)),
      type(other.type),
      name(std::move(other.name)),
      value(std::move(other.value)) {
  other.children.clear();
  other.attributes.clear();
  other.name.clear();
  other.value.clear();
}

XMLElement& XMLElement::operator=(const XMLElement& other) {
  if (this != &other) {
    XMLElement copy(other);
    Swap(copy);
  }
  return *this;
}

XMLElement& XMLElement::operator=(XMLElement&& other) noexcept {
  if (this != &other) {
    XMLElement taken(std::move(other));
    Swap(taken);
  }
  return *this;
}

XMLElement::~XMLElement() {
  DestroyElements(children);
  DestroyAttributes(attributes);
}

void XMLElement::Swap(XMLElement& other) noexcept {
  children.swap(other.children);
  attributes.swap(other.attributes);
  value.swap(other.value);
  name.swap(other.name);
  std::swap(type, other.type);
}

// --- XMLElement: queries ---------------------------------------------------------------------

bool XMLElement::HasElements() const { return !children.empty(); }

bool XMLElement::HasAttributes() const { return !attributes.empty(); }

XMLElement* XMLElement::FindElementByName(const std::string& name) const {
  for (XMLElement* child : children) {
    if (NameEquals(child->name, name)) return child;
  }
  return nullptr;
}

void XMLElement::FindElements(std::string name, std::vector<XMLElement*>& out) const {
  for (XMLElement* child : children) {
    if (NameEquals(child->name, name)) out.push_back(child);
  }
}

XMLElement* XMLElement::FindElementByPath(const std::string& path) const {
  const XMLElement* current = this;
  for (const std::string& segment : Split(path, "/")) {
    current = current->FindElementByName(segment);
    if (current == nullptr) return nullptr;
  }
  return const_cast<XMLElement*>(current);
}

std::string XMLElement::GetValueByName(const std::string& name) const {
  const XMLElement* found = FindElementByName(name);
  return found != nullptr ? found->value : std::string();
}

XMLAttribute* XMLElement::FindAttributeByName(const std::string& name) const {
  for (XMLAttribute* a : attributes) {
    if (NameEquals(a->name, name)) return a;
  }
  return nullptr;
}

XMLAttribute* XMLElement::FindAttribute(const XMLAttribute& a) const {
  XMLAttribute* found = FindAttributeByName(a.name);
  return found != nullptr && found->value == a.value ? found : nullptr;
}

XMLElement* XMLElement::FindElement(const XMLElement& e) const {
  XMLElement* found = FindElementByName(e.name);
  return found != nullptr && found->value == e.value ? found : nullptr;
}

bool XMLElement::operator==(const XMLElement& other) const {
  return this == &other || value == other.value;
}

bool XMLElement::operator!=(const XMLElement& other) const { return !(*this == other); }

// --- XMLElement: modification ----------------------------------------------------------------

XMLElement* XMLElement::AddElement(std::string name, std::string value, std::string attrName,
                                   std::string attrValue) {
  XMLElement* child = KT_ELEMENT_CONSTRUCTOR(Element, name, value);
  try {
    if (!attrName.empty()) child->AddAttribute(std::move(attrName), std::move(attrValue));
    children.push_back(child);
  } catch (...) {
    FreeElement(child);
    throw;
  }
  return child;
}

XMLElement* XMLElement::AddElement(const XMLElement& e) {
  xml_internal::ReserveOneMore(children);
  XMLElement* copy = KT_ELEMENT_CONSTRUCTOR(e);
  children.push_back(copy);
  return copy;
}

XMLAttribute* XMLElement::AddAttribute(std::string name, std::string value) {
  xml_internal::ReserveOneMore(attributes);
  XMLAttribute* added = KT_ATTRIBUTE_CONSTRUCTOR(std::move(name), std::move(value));
  RemoveAttribute(added->name);
  attributes.push_back(added);
  return added;
}

XMLAttribute* XMLElement::AddAttribute(const XMLAttribute& a) {
  xml_internal::ReserveOneMore(attributes);
  XMLAttribute* added = KT_ATTRIBUTE_CONSTRUCTOR(a);
  // `a` may be one of this element's attributes and may be destroyed here: only `added` is used
  // after this call.
  RemoveAttribute(a);
  attributes.push_back(added);
  return added;
}

namespace {

// The removals below erase the first item of `items` that matches and release it.

template <typename T>
bool RemoveNamed(std::vector<T*>& items, const std::string& name, void (*release)(T*)) {
  for (auto it = items.begin(); it != items.end(); ++it) {
    if (NameEquals((*it)->name, name)) return EraseAt(items, it, release);
  }
  return false;
}

// Only the first item of the same name is considered: it is removed when its value matches too.
template <typename T>
bool RemoveEqual(std::vector<T*>& items, const T& item, void (*release)(T*)) {
  for (auto it = items.begin(); it != items.end(); ++it) {
    if (NameEquals((*it)->name, item.name)) {
      return (*it)->value == item.value && EraseAt(items, it, release);
    }
  }
  return false;
}

template <typename T>
bool RemovePointer(std::vector<T*>& items, const T* p, void (*release)(T*)) {
  auto it = std::find(items.begin(), items.end(), p);
  return it != items.end() && EraseAt(items, it, release);
}

}  // namespace

bool XMLElement::RemoveAttribute(const std::string& name) {
  return RemoveNamed(attributes, name, FreeAttribute);
}

bool XMLElement::RemoveAttribute(const XMLAttribute& a) {
  return RemoveEqual(attributes, a, FreeAttribute);
}

bool XMLElement::RemoveAttribute(const XMLAttribute* p) {
  return RemovePointer(attributes, p, FreeAttribute);
}

bool XMLElement::RemoveElement(const std::string& name) {
  return RemoveNamed(children, name, FreeElement);
}

bool XMLElement::RemoveElement(const XMLElement& e) {
  return RemoveEqual(children, e, FreeElement);
}

bool XMLElement::RemoveElement(const XMLElement* p) {
  return RemovePointer(children, p, FreeElement);
}

// --- XMLElement: building --------------------------------------------------------------------

XMLElement XMLElement::CreateElementAtPath(std::string path) {
  const std::vector<std::string> segments = Split(path, "/");
  XMLElement root(Element, segments.front(), std::string());
  XMLElement* current = &root;
  for (std::size_t i = 1; i < segments.size(); ++i) {
    current = current->AddElement(segments[i], std::string(), std::string(), std::string());
  }
  return root;
}

// --- Free functions --------------------------------------------------------------------------

bool ElementNameEqual(XMLElement* e, std::string name) { return NameEquals(e->name, name); }

bool AttributeTagEqual(XMLAttribute* a, std::string name) { return NameEquals(a->name, name); }

std::vector<std::string> Split(const std::string& text, const std::string& delimiter) {
  std::vector<std::string> pieces;
  if (delimiter.empty()) {
    pieces.push_back(text);
    return pieces;
  }
  std::string::size_type start = 0;
  for (std::string::size_type found; (found = text.find(delimiter, start)) != std::string::npos;) {
    pieces.push_back(text.substr(start, found - start));
    start = found + delimiter.size();
  }
  pieces.push_back(text.substr(start));
  return pieces;
}

int StrCaseCmp(const std::string& a, const std::string& b) {
  return strcasecmp(a.c_str(), b.c_str());
}

std::string Trim(std::string text, std::string characters) {
  const std::string::size_type first = text.find_first_not_of(characters);
  if (first == std::string::npos) return std::string();
  const std::string::size_type last = text.find_last_not_of(characters);
  return text.substr(first, last - first + 1);
}

std::string TrimWhiteSpace(std::string text) { return Trim(std::move(text), " \t\n\r"); }

std::string TrimLeadingWhiteSpace(std::string text) {
  const std::string::size_type first = text.find_first_not_of(" \t\n\r");
  if (first == std::string::npos) return std::string();
  return text.substr(first);
}

}  // namespace kt
