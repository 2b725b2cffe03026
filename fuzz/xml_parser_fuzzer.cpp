// Parses arbitrary bytes with both entry points of the XML parser (a memory cursor and stream
// extraction), requires identical trees, messages and results, then prints, copies, compares,
// merges and destroys the tree, and requires every memory manager record to be released.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "kt/MemoryManager.h"
#include "kt/xml.h"

namespace {

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "xml_parser_fuzzer: %s\n", what);
  std::abort();
}

bool SameNode(const kt::XMLElement& a, const kt::XMLElement& b) {
  if (a.type != b.type || a.name != b.name || a.value != b.value ||
      a.attributes.size() != b.attributes.size() || a.children.size() != b.children.size()) {
    return false;
  }
  for (std::size_t i = 0; i < a.attributes.size(); ++i) {
    if (a.attributes[i]->name != b.attributes[i]->name ||
        a.attributes[i]->value != b.attributes[i]->value) {
      return false;
    }
  }
  return true;
}

// Structural equality without recursion: inputs may nest thousands of levels.
bool SameTree(const kt::XMLElement& a, const kt::XMLElement& b) {
  std::vector<std::pair<const kt::XMLElement*, const kt::XMLElement*>> work{{&a, &b}};
  while (!work.empty()) {
    const auto [x, y] = work.back();
    work.pop_back();
    if (!SameNode(*x, *y)) return false;
    for (std::size_t i = 0; i < x->children.size(); ++i) {
      work.emplace_back(x->children[i], y->children[i]);
    }
  }
  return true;
}

// Parses `text` one way, returning whether the stream stayed unfailed and what went to std::cerr.
template <typename ParseFn>
std::pair<bool, std::string> Capture(ParseFn parse) {
  std::ostringstream messages;
  std::streambuf* previous = std::cerr.rdbuf(messages.rdbuf());
  const bool ok = parse();
  std::cerr.rdbuf(previous);
  return {ok, messages.str()};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kt::MemoryManager* manager = kt::MemoryManager::Instance();
  const std::size_t live = manager->Count();
  const std::string text(reinterpret_cast<const char*>(data), size);
  {
    kt::XMLElement fromBuffer, fromStream, fromOperations;
    const auto buffer =
        Capture([&] { return kt::ParseXMLBuffer(text.data(), text.size(), fromBuffer); });
    const auto stream = Capture([&] {
      std::istringstream in(text);
      in >> fromStream;
      return !in.fail();
    });
    const auto operations = Capture([&] {
      std::istringstream in(text);
      in.exceptions(std::ios_base::badbit);  // the stream's own operations, one by one
      in >> fromOperations;
      return !in.fail();
    });
    if (buffer != stream || buffer != operations) Fail("results or messages differ");
    if (!SameTree(fromBuffer, fromStream) || !SameTree(fromBuffer, fromOperations)) {
      Fail("trees differ");
    }

    const std::string compact = static_cast<std::string>(fromBuffer);
    std::ostringstream indented;
    indented << fromBuffer;
    if (compact.empty() || indented.str().empty()) Fail("nothing printed");

    kt::XMLElement copy(fromBuffer);
    if (!SameTree(copy, fromBuffer)) Fail("copy differs");
    // A tree always contains the chain of its own first children.
    if (kt::SearchElements(&fromBuffer, &copy) == nullptr) Fail("search missed the tree's chain");
    bool changed = false;
    kt::AddElements(fromBuffer, copy, changed);
    kt::XMLElement::Diff(copy, fromStream);
    kt::RemoveElements(fromBuffer, fromOperations, changed);
  }
  if (manager->Count() != live) Fail("memory manager records left outstanding");
  return 0;
}
