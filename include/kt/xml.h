// The base library's XML document model: an element tree, its lenient parser and printers, and the
// string utilities they rely on.
//
// Every engine command and event is a small XML document. A document is read into a kt::XMLElement
// tree: each element owns its attributes and child elements, all allocated through the tracked
// memory manager (kt::MemoryManager) with the source tag "xml", so that leaked nodes show up in its
// reports. Name lookups ignore ASCII letter case; value comparisons are exact.
//
// Thread safety: a tree is not synchronised; use one tree from one thread at a time. Different
// trees may be built, parsed, printed and destroyed on different threads at the same time.
//
// Nesting depth: parsing, copying, assigning, printing and destroying use explicit stacks, so a
// document nested a million levels deep cannot overflow the call stack.
#ifndef KT_XML_H
#define KT_XML_H

#include <cstddef>
#include <iosfwd>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "kt/MemoryManager.h"
#include "convoke/export.h"

namespace kt {

// The kind of a node.
enum XMLType {
  Element = 0,      // an ordinary element
  Declaration = 1,  // a processing instruction read from "<?"; printed as "<?xml" ... "?>"
  Comment = 2,      // "<!--" ...; its text is held in the name
  Directive = 3     // any other "<!" construct; its text is held in the name
};

// Allocation adaptor: builds objects in storage from an allocator and hands the storage back.
template <typename Allocator, typename T>
class Constructor;

// Builds T in a block from the tracked memory manager, tagged with a source file and line.
// `manager` points at the variable that holds the manager; it must outlive the adaptor.
// Thread safety: the adaptor only reads its own fields, so it is as thread-safe as the manager.
template <typename T>
class Constructor<MemoryManager*, T> {
 public:
  Constructor(MemoryManager* const* manager, const char* file, int line)
      : manager_(manager), file_(file), line_(line) {}

  // Allocates sizeof(T) bytes and builds T from `args`. Throws std::bad_alloc when the manager
  // has no memory; when T's constructor throws, the storage is handed back and the exception
  // rethrown.
  template <typename... Args>
  T* operator()(Args&&... args) const {
    void* storage = (*manager_)->Allocate(sizeof(T), file_, line_);
    if (storage == nullptr) throw std::bad_alloc();
    try {
      return new (storage) T(std::forward<Args>(args)...);
    } catch (...) {
      (*manager_)->Free(storage, file_, line_);
      throw;
    }
  }

  // A new T with its default contents.
  operator T*() const { return (*this)(); }

  // Destroys `p` (null is ignored) and returns its storage to the manager.
  void Free(T* p, const char* file, int line) const {
    if (p == nullptr) return;
    p->~T();
    (*manager_)->Free(p, file, line);
  }

 private:
  MemoryManager* const* manager_;
  const char* file_;
  int line_;
};

// One attribute: its name as read or given, and its raw value (entities are never decoded).
// Thread safety: a plain value, not synchronised.
class CONVOKE_API XMLAttribute {
 public:
  XMLAttribute(std::string name = std::string(), std::string value = std::string());

  // Compact text: name, `=""`, the raw value, `""` (the quotes doubled on purpose: id=""5"").
  operator std::string() const;

  std::string name;
  std::string value;
};

// One node of a document. It owns its children and attributes (no parent pointer).
// Thread safety: not synchronised; a tree is used by one thread at a time.
class CONVOKE_API XMLElement {
 public:
  XMLElement(XMLType type = Element, const std::string& name = std::string(),
             const std::string& value = std::string());
  XMLElement(const std::string& name, const std::string& value = std::string(),
             XMLType type = Element);
  // Deep copy: every descendant and attribute is copied into new storage.
  XMLElement(const XMLElement& other);
  // Takes over `other`'s nodes; `other` is left an empty element of the same type.
  XMLElement(XMLElement&& other) noexcept;
  // Deep copy, then the old contents are destroyed. Self-assignment does nothing.
  XMLElement& operator=(const XMLElement& other);
  XMLElement& operator=(XMLElement&& other) noexcept;
  // Destroys every descendant and attribute and returns their storage to the memory manager.
  virtual ~XMLElement();

  // Exchanges children, attributes, values, names and types.
  void Swap(XMLElement& other) noexcept;

  // Queries. None looks further than the direct children (or this element's own attributes).
  // Returned pointers stay owned by this element.
  bool HasElements() const;
  bool HasAttributes() const;
  // The first child whose name equals `name` ignoring case; null if none.
  XMLElement* FindElementByName(const std::string& name) const;
  // Appends (without clearing `out`) every child whose name equals `name` ignoring case.
  void FindElements(std::string name, std::vector<XMLElement*>& out) const;
  // Follows the "/"-separated path of child names from this element (which the path does not
  // name): "stream/conditions" is the child conditions of the child stream. Null as soon as a
  // segment is missing; an empty segment matches only a child with an empty name.
  XMLElement* FindElementByPath(const std::string& path) const;
  // The value of FindElementByName(name), or the empty string.
  std::string GetValueByName(const std::string& name) const;
  // The first attribute whose name equals `name` ignoring case; null if none.
  XMLAttribute* FindAttributeByName(const std::string& name) const;
  // The first attribute named a.name (ignoring case), only if its value equals a.value exactly.
  XMLAttribute* FindAttribute(const XMLAttribute& a) const;
  // The first child named e.name (ignoring case), only if its value equals e.value exactly.
  XMLElement* FindElement(const XMLElement& e) const;
  // True for the same object or equal values; names, types, attributes and children are ignored.
  bool operator==(const XMLElement& other) const;
  bool operator!=(const XMLElement& other) const;

  // Modification. New nodes and attributes come from the memory manager; removed ones are
  // destroyed and their storage returned. Removal keeps the order of the rest.
  //
  // Appends a new child (type Element) with `name` and `value`, and the attribute
  // (attrName, attrValue) when attrName is not empty. Returns the child.
  XMLElement* AddElement(std::string name, std::string value = std::string(),
                         std::string attrName = std::string(),
                         std::string attrValue = std::string());
  // Appends a deep copy of `e` and returns it.
  XMLElement* AddElement(const XMLElement& e);
  // Replaces the first attribute named `name` (ignoring case), if any, by a new one appended at
  // the end. Returns the new attribute.
  XMLAttribute* AddAttribute(std::string name, std::string value);
  // Appends a copy of `a` after RemoveAttribute(a): a same-named attribute with another value
  // stays, so the element then has two attributes of that name.
  XMLAttribute* AddAttribute(const XMLAttribute& a);
  // Removes the first attribute named `name` (ignoring case). False if there is none.
  bool RemoveAttribute(const std::string& name);
  // Removes the first attribute named a.name (ignoring case) only if its value equals a.value.
  bool RemoveAttribute(const XMLAttribute& a);
  // Removes the attribute that is the object `p`. False if `p` is not one of this element's.
  bool RemoveAttribute(const XMLAttribute* p);
  // Removes the first child named `name` (ignoring case).
  bool RemoveElement(const std::string& name);
  // Removes the first child named e.name (ignoring case) only if its value equals e.value.
  bool RemoveElement(const XMLElement& e);
  // Removes the child that is the object `p`.
  bool RemoveElement(const XMLElement* p);

  // A fresh chain of elements named by the "/"-separated segments: "a/b/c" gives a holding b
  // holding c, every value empty.
  static XMLElement CreateElementAtPath(std::string path);

  // Removes from both trees what they have in common, leaving in each what differs from the other
  // (see the comparison functions below): attributes other than "id" with an equal value in the
  // counterpart, and matched children with equal trimmed values that are then empty (no children,
  // and no attribute but "id").
  static void Diff(XMLElement& a, XMLElement& b);

  // Compact text: "<name attr=""v"">encoded value, children's compact text</name>", no white
  // space added, no empty-element form, the type ignored.
  operator std::string() const;
  // Replaces " & ' < > by &quot; &amp; &apos; &lt; &gt;.
  static std::string xml_encode(std::string text);

  std::vector<XMLElement*> children;      // owned, in document order
  std::vector<XMLAttribute*> attributes;  // owned, in document order
  XMLType type;
  std::string name;   // for a Comment or Directive: the text of the construct
  std::string value;  // character content, entities decoded, not trimmed
};

// A whole file read under a synthetic root named "__ROOT__". Not copyable.
// Thread safety: not synchronised, like the tree it owns.
class CONVOKE_API XMLFile {
 public:
  XMLFile();
  ~XMLFile();
  XMLFile(const XMLFile&) = delete;
  XMLFile& operator=(const XMLFile&) = delete;

  // Remembers `path`, replaces the root by a new empty one and reads the file into it (see the
  // XMLFile extraction operator). True exactly when the file could be opened; parse problems do
  // not change the result. A file is never closed by its root's name, so every read that reaches
  // the root ends with "Missing end tag!" on standard error; the tree is complete nevertheless.
  bool Open(const std::string& path);
  // Open with the remembered path.
  bool Reopen();

  XMLElement* root;      // owned, never null
  std::string filename;  // the path of the last Open
};

// Indented printer: `depth` spaces before each tag, one more per level, a line per element.
// Thread safety: none of its own; the stream and the tree must not change while it prints.
struct CONVOKE_API PrintElement {
  explicit PrintElement(std::ostream& os, unsigned depth = 0) : os(os), depth(depth) {}
  void operator()(const XMLElement* e) const;
  void operator()(const XMLElement& e) const { (*this)(&e); }
  std::ostream& os;
  unsigned depth;
};

// Writes ` name="value"` with the raw value.
// Thread safety: none of its own; the stream and the attribute must not change while it prints.
struct CONVOKE_API PrintAttribute {
  explicit PrintAttribute(std::ostream& os) : os(os) {}
  void operator()(const XMLAttribute* a) const;
  void operator()(const XMLAttribute& a) const { (*this)(&a); }
  std::ostream& os;
};

// Parses from `in` into `e`, adding to what `e` holds. Parsing into a default element makes it a
// nameless container of the document's top-level nodes. The parser is small and lenient, not a
// conforming XML parser:
// - attribute values are kept raw; in content only &apos; &quot; &amp; &lt; &gt; are decoded and
//   any other entity becomes "&";
// - character classes are those of the "C" locale, so a byte above 127 ends a name or an attribute
//   value (content keeps every byte);
// - a start tag needs an attribute or nothing between its name and ">" ("<a >" is not closed);
// - a NUL character in the content ends the element as if the input had ended.
// A mismatched end tag writes "End tag: X doesn't match open tag: Y" and a named element that runs
// out of input writes "Missing end tag!" (each on a line of standard error); both set the failbit
// and leave the partial tree in place. Reading to the end of the input into a nameless container
// always sets eofbit and failbit: the container stops only when a read finds no more input.
CONVOKE_API std::istream& operator>>(std::istream& in, XMLElement& e);
// Names the root "__ROOT__", skips to the first "<" and, unless the input ended, parses into it.
CONVOKE_API std::istream& operator>>(std::istream& in, XMLFile& f);
// PrintElement with depth 0.
CONVOKE_API std::ostream& operator<<(std::ostream& os, const XMLElement& e);
// Writes the root pointer's value (an address), not the document.
CONVOKE_API std::ostream& operator<<(std::ostream& os, const XMLFile& f);

// Builds in `element` exactly the tree that `std::istringstream(std::string(data, length)) >>
// element` builds, writing the same messages to standard error, without building a stream.
// Returns true when that stream would not be in the failed state afterwards (see operator>>: a
// document read to its end into a nameless container leaves it failed, so callers look for the
// elements they need rather than rely on the result). `data` may be null when `length` is 0.
CONVOKE_API bool ParseXMLBuffer(const char* data, std::size_t length, XMLElement& element);

// Comparison and merge of two versions of a document. An element's identity is its name and the
// value of its attribute "id" (found ignoring case; empty when absent); two elements correspond
// when both are equal byte for byte. Values are compared after TrimWhiteSpace. None of these
// functions removes an attribute named exactly "id". `changed` is only ever set to true, never
// reset: clear it first. All of them walk the trees with explicit stacks.
//
// Sets `name` to e's name and `id` to its "id" attribute's value, or to "" when there is none.
CONVOKE_API void GetElementNameAndId(const XMLElement& e, std::string& name, std::string& id);
// The first child of `parent` with the same name and id as `probe`; null if none.
CONVOKE_API XMLElement* FindElementByNameAndId(XMLElement& parent, const XMLElement& probe);
// Merges `src` into `dst`: name and untrimmed value when they differ (by name or trimmed value),
// attribute values, and children, matched by name and id, recursively; an unmatched child is
// appended as a deep copy.
CONVOKE_API void AddElements(const XMLElement& src, XMLElement& dst, bool& changed);
// Removes from `dst` what `src` names: the attributes of src's attribute names (but "id"), and
// each matched child that src gives as a leaf carrying only its identity and an equal trimmed
// value; other matched children act recursively on their counterparts.
CONVOKE_API void RemoveElements(const XMLElement& src, XMLElement& dst, bool& changed);
// Destroys every child of `e` (null is ignored); its attributes stay.
CONVOKE_API void RemoveElements(XMLElement* e);
// Strips from `target` what is unchanged relative to `ref`: children of corresponding elements
// with the same name, id and number of children, and attributes (but "id") equal in `ref`. Every
// descendant of `ref` must have a counterpart in `target`; a missing one ends the process with the
// assertion "a_element != NULL". A null `ref` does nothing.
CONVOKE_API void CompressElements(XMLElement& target, XMLElement* ref);
// Searches `tree` for the chain of first children of `pattern`, matching values (operator==).
// Returns `tree` itself when `pattern` has no children, the element whose child matched the end
// of the chain, or null. Null arguments give null.
CONVOKE_API XMLElement* SearchElements(XMLElement* tree, XMLElement* pattern);

// Matching predicates: the name equals `name` ignoring ASCII case.
CONVOKE_API bool ElementNameEqual(XMLElement* e, std::string name);
CONVOKE_API bool AttributeTagEqual(XMLAttribute* a, std::string name);

// String utilities.
//
// The pieces of `text` between occurrences of `delimiter`, empty pieces kept: "a//b" gives a, "",
// b; "" gives one empty piece. An empty delimiter gives `text` as the only piece.
CONVOKE_API std::vector<std::string> Split(const std::string& text, const std::string& delimiter);
// strcasecmp of the two strings (so each ends at its first NUL).
CONVOKE_API int StrCaseCmp(const std::string& a, const std::string& b);
// Removes every character of `characters` from both ends.
CONVOKE_API std::string Trim(std::string text, std::string characters);
// Trim with " \t\n\r".
CONVOKE_API std::string TrimWhiteSpace(std::string text);
// Removes " \t\n\r" from the front only.
CONVOKE_API std::string TrimLeadingWhiteSpace(std::string text);

}  // namespace kt

#endif  // KT_XML_H
