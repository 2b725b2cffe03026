// Comparison and merge of two versions of a document: elements correspond by name and "id". Every
// walk keeps its own stack of frames, so the depth of the trees does not reach the call stack; the
// order of the work is that of the natural recursive formulation (each child's subtree is finished
// before its next sibling is looked up).
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kt/xml.h"

namespace kt {

namespace {

const char kId[] = "id";

// A contract check that stays active in release builds: prints in the platform's assertion format
// and aborts.
[[noreturn]] void AssertionFailed(const char* expression, const char* function, int line) {
  std::fprintf(stderr, "Assertion failed: (%s), function %s, file xml, line %d.\n", expression,
               function, line);
  std::fflush(stderr);
  std::abort();
}

#define KT_XML_ASSERT(expression, function) \
  ((expression) ? static_cast<void>(0) : AssertionFailed(#expression, function, __LINE__))

std::string IdOf(const XMLElement& e) {
  const XMLAttribute* id = e.FindAttributeByName(kId);
  return id != nullptr ? id->value : std::string();
}

bool TrimmedValuesEqual(const XMLElement& a, const XMLElement& b) {
  return TrimWhiteSpace(a.value) == TrimWhiteSpace(b.value);
}

// No children, and no attribute other than the identity.
bool CarriesOnlyIdentity(const XMLElement& e) {
  if (e.HasElements()) return false;
  return e.attributes.empty() ||
         (e.attributes.size() == 1 && e.FindAttributeByName(kId) != nullptr);
}

}  // namespace

void GetElementNameAndId(const XMLElement& e, std::string& name, std::string& id) {
  name = e.name;
  id = IdOf(e);
}

XMLElement* FindElementByNameAndId(XMLElement& parent, const XMLElement& probe) {
  const std::string id = IdOf(probe);
  for (XMLElement* child : parent.children) {
    if (child->name == probe.name && IdOf(*child) == id) return child;
  }
  return nullptr;
}

void XMLElement::Diff(XMLElement& a, XMLElement& b) {
  struct Frame {
    XMLElement* a;
    XMLElement* b;
    std::vector<XMLElement*> children;  // a's children when the frame began
    std::size_t next;
    XMLElement* c;  // the child of a whose subtree is being compared, with its match m
    XMLElement* m;
  };
  std::vector<Frame> frames;
  auto begin = [&frames](XMLElement* x, XMLElement* y) {
    const std::vector<XMLAttribute*> attributes = x->attributes;
    for (XMLAttribute* attribute : attributes) {
      if (attribute->name == kId) continue;
      XMLAttribute* same = y->FindAttribute(*attribute);
      if (same != nullptr) {
        x->RemoveAttribute(attribute);
        y->RemoveAttribute(same);
      }
    }
    frames.push_back({x, y, x->children, 0, nullptr, nullptr});
  };

  begin(&a, &b);
  while (!frames.empty()) {
    const std::size_t top = frames.size() - 1;
    if (frames[top].c != nullptr) {
      // The pair's subtrees are compared; drop what is now equal and empty on either side. Both
      // sides are judged before either is removed.
      Frame& f = frames[top];
      if (TrimmedValuesEqual(*f.c, *f.m)) {
        const bool dropC = CarriesOnlyIdentity(*f.c);
        const bool dropM = CarriesOnlyIdentity(*f.m);
        if (dropC) f.a->RemoveElement(f.c);
        if (dropM) f.b->RemoveElement(f.m);
      }
      f.c = f.m = nullptr;
    }
    XMLElement* c = nullptr;
    XMLElement* m = nullptr;
    while (frames[top].next < frames[top].children.size()) {
      c = frames[top].children[frames[top].next++];
      m = FindElementByNameAndId(*frames[top].b, *c);
      if (m != nullptr) break;
    }
    if (m == nullptr) {
      frames.pop_back();
      continue;
    }
    frames[top].c = c;
    frames[top].m = m;
    begin(c, m);
  }
}

void AddElements(const XMLElement& src, XMLElement& dst, bool& changed) {
  struct Frame {
    const XMLElement* src;
    XMLElement* dst;
    std::size_t next;
  };
  std::vector<Frame> frames;
  auto begin = [&frames, &changed](const XMLElement* from, XMLElement* to) {
    if (from->name != to->name || !TrimmedValuesEqual(*from, *to)) {
      changed = true;
      to->name = from->name;
      to->value = from->value;
    }
    const std::vector<XMLAttribute*> attributes = from->attributes;
    for (const XMLAttribute* attribute : attributes) {
      XMLAttribute* existing = to->FindAttributeByName(attribute->name);
      if (existing == nullptr) {
        changed = true;
        to->AddAttribute(*attribute);
      } else if (existing->value != attribute->value) {
        changed = true;
        existing->value = attribute->value;
      }
    }
    frames.push_back({from, to, 0});
  };

  begin(&src, &dst);
  while (!frames.empty()) {
    Frame& f = frames.back();
    if (f.next == f.src->children.size()) {
      frames.pop_back();
      continue;
    }
    const XMLElement* child = f.src->children[f.next++];
    XMLElement* match = FindElementByNameAndId(*f.dst, *child);
    if (match != nullptr) {
      begin(child, match);
    } else {
      f.dst->AddElement(*child);
      changed = true;
    }
  }
}

void RemoveElements(const XMLElement& src, XMLElement& dst, bool& changed) {
  struct Frame {
    const XMLElement* src;
    XMLElement* dst;
    std::size_t next;
  };
  std::vector<Frame> frames;
  auto begin = [&frames, &changed](const XMLElement* from, XMLElement* to) {
    const std::vector<XMLAttribute*> attributes = from->attributes;
    for (const XMLAttribute* attribute : attributes) {
      if (attribute->name == kId) continue;
      const std::string name = attribute->name;
      if (to->RemoveAttribute(name)) changed = true;
    }
    frames.push_back({from, to, 0});
  };

  begin(&src, &dst);
  while (!frames.empty()) {
    Frame& f = frames.back();
    if (f.next >= f.src->children.size()) {
      frames.pop_back();
      continue;
    }
    const XMLElement* child = f.src->children[f.next++];
    XMLElement* match = FindElementByNameAndId(*f.dst, *child);
    if (match == nullptr) continue;
    if (CarriesOnlyIdentity(*child) && TrimmedValuesEqual(*child, *match)) {
      // The child stands for the removal of its counterpart.
      f.dst->RemoveElement(match);
      changed = true;
    } else {
      begin(child, match);
    }
  }
}

void RemoveElements(XMLElement* e) {
  if (e == nullptr) return;
  // The holder's destructor releases the children in order, without recursion.
  XMLElement holder;
  holder.children.swap(e->children);
}

void CompressElements(XMLElement& target, XMLElement* ref) {
  if (ref == nullptr) return;
  struct Frame {
    XMLElement* target;
    const XMLElement* ref;
    std::size_t next;
  };
  std::vector<Frame> frames{{&target, ref, 0}};
  while (!frames.empty()) {
    Frame& f = frames.back();
    if (f.next < f.ref->children.size()) {
      const XMLElement* child = f.ref->children[f.next++];
      XMLElement* a_element = FindElementByNameAndId(*f.target, *child);
      KT_XML_ASSERT(a_element != NULL, "CompressElements");
      frames.push_back({a_element, child, 0});
      continue;
    }
    XMLElement& t = *f.target;
    const XMLElement& r = *f.ref;
    frames.pop_back();
    if (t.HasElements() && r.HasElements() && t.name == r.name &&
        t.children.size() == r.children.size() && IdOf(t) == IdOf(r)) {
      RemoveElements(&t);
    }
    const std::vector<XMLAttribute*> attributes = t.attributes;
    for (XMLAttribute* attribute : attributes) {
      if (attribute->name == kId) continue;
      const XMLAttribute* counterpart = r.FindAttributeByName(attribute->name);
      if (counterpart != nullptr && counterpart->value == attribute->value) {
        t.RemoveAttribute(attribute);
      }
    }
  }
}

XMLElement* SearchElements(XMLElement* tree, XMLElement* pattern) {
  if (tree == nullptr || pattern == nullptr) return nullptr;
  if (!pattern->HasElements()) return tree;
  if (!tree->HasElements() || *tree != *pattern) return nullptr;
  struct Frame {
    XMLElement* tree;
    const XMLElement* pattern;
    std::size_t next;
  };
  std::vector<Frame> frames{{tree, pattern, 0}};
  while (!frames.empty()) {
    Frame& f = frames.back();
    if (f.next == f.tree->children.size()) {
      frames.pop_back();
      continue;
    }
    // Only the pattern's first child continues the chain.
    XMLElement* const p = f.pattern->children.front();
    XMLElement* t = f.tree->children[f.next++];
    if (*t != *p) continue;
    if (!p->HasElements()) return f.tree;
    if (t->HasElements()) frames.push_back({t, p, 0});
  }
  return nullptr;
}

}  // namespace kt
