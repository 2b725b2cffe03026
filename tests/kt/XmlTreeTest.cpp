#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "kt/MemoryManager.h"
#include "kt/xml.h"

namespace {

using kt::XMLAttribute;
using kt::XMLElement;

std::vector<std::string> Names(const std::vector<XMLElement*>& elements) {
  std::vector<std::string> names;
  for (const XMLElement* e : elements) names.push_back(e->name);
  return names;
}

std::vector<std::string> Attributes(const XMLElement& e) {
  std::vector<std::string> texts;
  for (const XMLAttribute* a : e.attributes) texts.push_back(a->name + "=" + a->value);
  return texts;
}

TEST(XmlTree, ConstructorsTakeArgumentsInEitherOrder) {
  const XMLElement plain;
  EXPECT_EQ(plain.type, kt::Element);
  EXPECT_EQ(plain.name, "");
  EXPECT_EQ(plain.value, "");

  const XMLElement a(kt::Comment, "n", "v");
  const XMLElement b("n", "v", kt::Comment);
  EXPECT_EQ(a.type, b.type);
  EXPECT_EQ(a.name, b.name);
  EXPECT_EQ(a.value, b.value);
  EXPECT_FALSE(a.HasElements());
  EXPECT_FALSE(a.HasAttributes());
}

TEST(XmlTree, EqualityComparesValuesOnly) {
  const XMLElement a("a", "1");
  const XMLElement b("b", "1", kt::Comment);
  const XMLElement c("a", "2");
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a != b);
  EXPECT_FALSE(a == c);
  EXPECT_TRUE(a != c);
  EXPECT_TRUE(a == a);
}

TEST(XmlTree, LookupsIgnoreNameCaseAndLookOnlyAtChildren) {
  XMLElement root("event");
  XMLElement* stream = root.AddElement("stream", "s1", "id", "a1");
  stream->AddElement("amplitude", "42");
  root.AddElement("Stream", "s2");
  root.AddAttribute("Name", "amplitude");

  EXPECT_EQ(root.FindElementByName("STREAM"), stream);
  EXPECT_EQ(root.FindElementByName("amplitude"), nullptr) << "grandchildren are not searched";
  EXPECT_EQ(root.GetValueByName("stream"), "s1");
  EXPECT_EQ(root.GetValueByName("missing"), "");
  ASSERT_NE(root.FindAttributeByName("name"), nullptr);
  EXPECT_EQ(root.FindAttributeByName("name")->value, "amplitude");
  EXPECT_EQ(root.FindAttributeByName("id"), nullptr);

  std::vector<XMLElement*> found{&root};
  root.FindElements("stream", found);
  EXPECT_EQ(Names(found), (std::vector<std::string>{"event", "stream", "Stream"}))
      << "the output is appended to, not cleared";

  EXPECT_TRUE(kt::ElementNameEqual(stream, "STREAM"));
  EXPECT_FALSE(kt::ElementNameEqual(stream, "streams"));
  EXPECT_TRUE(kt::AttributeTagEqual(root.attributes[0], "NAME"));
}

TEST(XmlTree, FindElementAndFindAttributeExamineOnlyTheFirstOfAName) {
  XMLElement root;
  root.AddElement("a", "1");
  XMLElement* second = root.AddElement("a", "2");
  root.AddAttribute(XMLAttribute("x", "1"));
  root.AddAttribute(XMLAttribute("x", "2"));  // two attributes named x now

  EXPECT_EQ(root.FindElement(XMLElement("A", "2")), nullptr);
  EXPECT_EQ(root.FindElement(XMLElement("A", "1")), root.children[0]);
  EXPECT_NE(root.FindElement(XMLElement("a", "1")), second);
  EXPECT_EQ(root.FindAttribute(XMLAttribute("X", "2")), nullptr);
  EXPECT_EQ(root.FindAttribute(XMLAttribute("X", "1")), root.attributes[0]);
}

TEST(XmlTree, FindElementByPathFollowsChildNames) {
  XMLElement root;
  XMLElement* stream = root.AddElement("stream");
  XMLElement* window = stream->AddElement("window");
  XMLElement* width = window->AddElement("width", "640");

  EXPECT_EQ(root.FindElementByPath("stream"), stream);
  EXPECT_EQ(root.FindElementByPath("Stream/WINDOW/width"), width);
  EXPECT_EQ(root.FindElementByPath("window"), nullptr);
  EXPECT_EQ(root.FindElementByPath("stream/height"), nullptr);
  // Empty segments match only elements with empty names.
  for (const char* path : {"", "/stream", "stream/", "stream//window"}) {
    EXPECT_EQ(root.FindElementByPath(path), nullptr) << path;
  }
  XMLElement* nameless = window->AddElement("");
  EXPECT_EQ(root.FindElementByPath("stream/window/"), nameless);
}

TEST(XmlTree, AddAttributeByNameReplacesButAddingAnObjectKeepsBoth) {
  XMLElement e("a");
  e.AddAttribute("id", "1");
  e.AddAttribute("x", "9");
  e.AddAttribute(XMLAttribute("ID", "2"));
  EXPECT_EQ(Attributes(e), (std::vector<std::string>{"id=1", "x=9", "ID=2"}));

  XMLElement f("a");
  f.AddAttribute("id", "1");
  f.AddAttribute("x", "9");
  XMLAttribute* added = f.AddAttribute("Id", "2");
  EXPECT_EQ(Attributes(f), (std::vector<std::string>{"x=9", "Id=2"})) << "replaced, moved last";
  EXPECT_EQ(f.attributes.back(), added);

  // An object equal to the first same-named attribute replaces it; adding one of the element's
  // own attributes works although the original is destroyed on the way.
  f.AddAttribute(XMLAttribute("x", "9"));
  EXPECT_EQ(Attributes(f), (std::vector<std::string>{"Id=2", "x=9"}));
  f.AddAttribute(*f.attributes[0]);
  EXPECT_EQ(Attributes(f), (std::vector<std::string>{"x=9", "Id=2"}));
}

TEST(XmlTree, RemovalsMatchByNameValueOrIdentityAndKeepOrder) {
  XMLElement e;
  for (const char* name : {"a", "b", "c", "b"}) e.AddElement(name, name);
  e.AddAttribute(XMLAttribute("p", "1"));
  e.AddAttribute(XMLAttribute("q", "2"));
  e.AddAttribute(XMLAttribute("r", "3"));

  EXPECT_FALSE(e.RemoveElement(XMLElement("B", "other")));
  EXPECT_TRUE(e.RemoveElement(XMLElement("B", "b")));
  EXPECT_EQ(Names(e.children), (std::vector<std::string>{"a", "c", "b"}));
  EXPECT_TRUE(e.RemoveElement("C"));
  EXPECT_FALSE(e.RemoveElement("c"));
  const XMLElement stranger("a", "a");
  EXPECT_FALSE(e.RemoveElement(&stranger));
  EXPECT_TRUE(e.RemoveElement(e.children[1]));
  EXPECT_EQ(Names(e.children), (std::vector<std::string>{"a"}));

  EXPECT_FALSE(e.RemoveAttribute(XMLAttribute("Q", "3")));
  EXPECT_TRUE(e.RemoveAttribute(XMLAttribute("Q", "2")));
  EXPECT_FALSE(e.RemoveAttribute("missing"));
  const XMLAttribute foreign("p", "1");
  EXPECT_FALSE(e.RemoveAttribute(&foreign));
  EXPECT_TRUE(e.RemoveAttribute(e.attributes[1]));
  EXPECT_EQ(Attributes(e), (std::vector<std::string>{"p=1"}));
  EXPECT_TRUE(e.RemoveAttribute("P"));
  EXPECT_FALSE(e.HasAttributes());
}

TEST(XmlTree, AddElementBuildsChildrenAndDeepCopies) {
  XMLElement root;
  XMLElement* plain = root.AddElement("plain", "v", "", "ignored");
  EXPECT_FALSE(plain->HasAttributes()) << "an empty attribute name adds no attribute";
  XMLElement* tagged = root.AddElement("tagged", "", "id", "7");
  EXPECT_EQ(Attributes(*tagged), (std::vector<std::string>{"id=7"}));
  EXPECT_EQ(tagged->type, kt::Element);

  XMLElement source(kt::Directive, "src", "x");
  source.AddElement("inner")->AddAttribute("k", "v");
  XMLElement* copy = root.AddElement(source);
  source.children[0]->name = "changed";
  source.children[0]->attributes[0]->value = "changed";
  EXPECT_EQ(copy->type, kt::Directive);
  EXPECT_EQ(copy->children[0]->name, "inner");
  EXPECT_EQ(Attributes(*copy->children[0]), (std::vector<std::string>{"k=v"}));
  EXPECT_EQ(Names(root.children), (std::vector<std::string>{"plain", "tagged", "src"}));
}

TEST(XmlTree, CopiesAndAssignmentsAreIndependent) {
  XMLElement original("a", "1");
  original.AddAttribute("id", "5");
  original.AddElement("b", "2")->AddElement("c", "3");

  XMLElement copy(original);
  XMLElement assigned;
  assigned.AddElement("old");
  assigned = original;
  original.children[0]->children[0]->value = "changed";
  original.RemoveAttribute("id");

  for (const XMLElement* e : {&copy, &assigned}) {
    EXPECT_EQ(e->name, "a");
    EXPECT_EQ(Attributes(*e), (std::vector<std::string>{"id=5"}));
    ASSERT_EQ(e->children.size(), 1u);
    EXPECT_EQ(e->children[0]->children[0]->value, "3");
    EXPECT_NE(e->children[0], original.children[0]);
  }

  XMLElement& self = assigned;
  XMLElement* child = assigned.children[0];
  assigned = self;
  EXPECT_EQ(assigned.children[0], child) << "self-assignment changes nothing";

  XMLElement moved(std::move(copy));
  EXPECT_EQ(moved.children.size(), 1u);
  EXPECT_FALSE(copy.HasElements());  // NOLINT(bugprone-use-after-move): documented state

  XMLElement x(kt::Comment, "x", "1"), y("y", "2");
  x.AddElement("xc");
  x.Swap(y);
  EXPECT_EQ(x.name, "y");
  EXPECT_EQ(x.type, kt::Element);
  EXPECT_FALSE(x.HasElements());
  EXPECT_EQ(y.name, "x");
  EXPECT_EQ(y.value, "1");
  EXPECT_EQ(y.type, kt::Comment);
  EXPECT_EQ(Names(y.children), (std::vector<std::string>{"xc"}));
}

TEST(XmlTree, CreateElementAtPathBuildsAFreshChain) {
  const XMLElement one = XMLElement::CreateElementAtPath("a");
  EXPECT_EQ(one.name, "a");
  EXPECT_FALSE(one.HasElements());

  const XMLElement chain = XMLElement::CreateElementAtPath("a/b/c");
  EXPECT_EQ(chain.name, "a");
  ASSERT_EQ(chain.children.size(), 1u);
  EXPECT_EQ(chain.children[0]->name, "b");
  ASSERT_EQ(chain.children[0]->children.size(), 1u);
  EXPECT_EQ(chain.children[0]->children[0]->name, "c");
  EXPECT_FALSE(chain.children[0]->children[0]->HasElements());

  const XMLElement gaps = XMLElement::CreateElementAtPath("/x/");
  EXPECT_EQ(gaps.name, "");
  EXPECT_EQ(gaps.FindElementByPath("x/")->name, "");
}

TEST(XmlTree, TreesAllocateThroughTheMemoryManagerAndReleaseEverything) {
  kt::MemoryManager* m = kt::MemoryManager::Instance();
  const std::size_t before = m->Count();
  {
    XMLElement root("root");
    XMLElement* a = root.AddElement("a", "", "id", "1");
    a->AddElement("b");
    EXPECT_EQ(m->Count(), before + 3) << "two elements and one attribute";
    EXPECT_NE(m->Summary().find("xml:"), std::string::npos) << m->Summary();
    XMLElement copy(root);
    EXPECT_EQ(m->Count(), before + 6);
  }
  EXPECT_EQ(m->Count(), before);
}

// Builds in the constructor what the adaptor must release when the constructor throws.
struct Throwing {
  explicit Throwing(bool fail) {
    if (fail) throw std::runtime_error("refused");
  }
};

TEST(XmlTree, ConstructorAdaptorReturnsStorageWhenTheConstructorThrows) {
  kt::MemoryManager* m = kt::MemoryManager::Instance();
  kt::MemoryManager* const manager = m;
  const std::size_t before = m->Count();
  kt::Constructor<kt::MemoryManager*, Throwing> make(&manager, "test", 1);
  EXPECT_THROW(make(true), std::runtime_error);
  EXPECT_EQ(m->Count(), before);

  Throwing* built = make(false);
  EXPECT_EQ(m->Count(), before + 1);
  make.Free(built, "test", 2);
  make.Free(nullptr, "test", 3);
  EXPECT_EQ(m->Count(), before);

  kt::Constructor<kt::MemoryManager*, XMLElement> element(&manager, "test", 4);
  XMLElement* plain = element;
  EXPECT_EQ(plain->type, kt::Element);
  EXPECT_EQ(plain->name, "");
  element.Free(plain, "test", 5);
  EXPECT_EQ(m->Count(), before);
}

TEST(XmlStrings, SplitKeepsEmptyPieces) {
  const struct {
    const char* text;
    const char* delimiter;
    std::vector<std::string> pieces;
  } cases[] = {
      {"a/b", "/", {"a", "b"}},
      {"a//b", "/", {"a", "", "b"}},
      {"/a", "/", {"", "a"}},
      {"a/", "/", {"a", ""}},
      {"", "/", {""}},
      {"abc", "/", {"abc"}},
      {"a::b", "::", {"a", "b"}},
      {"a:::b", "::", {"a", ":b"}},
      {"ab", "", {"ab"}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(kt::Split(c.text, c.delimiter), c.pieces) << c.text << " by " << c.delimiter;
  }
}

TEST(XmlStrings, TrimAndCaseInsensitiveComparison) {
  EXPECT_EQ(kt::Trim("xxaxbxx", "x"), "axb");
  EXPECT_EQ(kt::Trim("xyx", "xy"), "");
  EXPECT_EQ(kt::Trim("", "x"), "");
  EXPECT_EQ(kt::Trim("abc", ""), "abc");
  EXPECT_EQ(kt::TrimWhiteSpace(" \t\r\n a b \n"), "a b");
  EXPECT_EQ(kt::TrimWhiteSpace("\v a \f"), "\v a \f") << "only space, tab, CR and LF are trimmed";
  EXPECT_EQ(kt::TrimWhiteSpace(" \n\t\r"), "");
  EXPECT_EQ(kt::TrimLeadingWhiteSpace("\n a \n"), "a \n");
  EXPECT_EQ(kt::TrimLeadingWhiteSpace(" \r\n\t"), "");

  EXPECT_EQ(kt::StrCaseCmp("Stream", "sTREAM"), 0);
  EXPECT_LT(kt::StrCaseCmp("a", "B"), 0);
  EXPECT_GT(kt::StrCaseCmp("b", "A"), 0);
  EXPECT_EQ(kt::StrCaseCmp(std::string("ab\0x", 4), "AB"), 0) << "compared up to the first NUL";
}

}  // namespace
