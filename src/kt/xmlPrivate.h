// Internals shared by the XML sources; not installed. Every XML node and attribute is allocated in
// xml.cpp with the source tag "xml" and the line of the allocating statement; the parser and the
// file loader go through the helpers below so that the tags stay unique.
#ifndef KT_XML_PRIVATE_H
#define KT_XML_PRIVATE_H

#include <cstddef>
#include <string>
#include <vector>

#include "kt/xml.h"

namespace kt {
namespace xml_internal {

// Makes room for one more item, growing geometrically (reserve(size + 1) would reallocate on every
// append).
template <typename T>
void ReserveOneMore(std::vector<T>& items) {
  if (items.size() == items.capacity()) items.reserve(items.empty() ? 4 : items.size() * 2);
}

// A stack that keeps its first N items inline, so that walking an ordinary tree allocates nothing.
template <typename T, std::size_t N>
class SmallStack {
 public:
  bool Empty() const { return size_ == 0; }
  std::size_t Size() const { return size_; }
  T& Top() { return size_ <= N ? inline_[size_ - 1] : spill_.back(); }
  void Push(const T& item) {
    if (size_ < N) {
      inline_[size_] = item;
    } else {
      spill_.push_back(item);
    }
    ++size_;
  }
  void Pop() {
    if (size_ > N) spill_.pop_back();
    --size_;
  }

 private:
  T inline_[N];
  std::vector<T> spill_;
  std::size_t size_ = 0;
};

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

#endif  // KT_XML_PRIVATE_H
