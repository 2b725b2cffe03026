#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "XmlTestSupport.h"
#include "kt/xml.h"

namespace {

using kt::XMLElement;
using xmltest::Describe;

// The document element of `text`.
XMLElement Doc(const std::string& text) {
  XMLElement container;
  kt::ParseXMLBuffer(text.data(), text.size(), container);
  EXPECT_EQ(container.children.size(), 1u) << text;
  return container.HasElements() ? std::move(*container.children[0]) : XMLElement();
}

TEST(XmlMerge, IdentityIsTheExactNameAndTheIdFoundIgnoringCase) {
  XMLElement parent = Doc(
      "<p><s>none</s><s ID='1'>one</s><S id='2'>upper</S><s id='2'>two</s><s id=''>empty</s></p>");
  std::string name, id;
  kt::GetElementNameAndId(*parent.children[1], name, id);
  EXPECT_EQ(name, "s");
  EXPECT_EQ(id, "1");
  kt::GetElementNameAndId(*parent.children[0], name, id);
  EXPECT_EQ(id, "") << "an element without id has the empty id";

  const struct {
    const char* probe;
    const char* found;  // value of the match, or nullptr
  } cases[] = {
      {"<s/>", "none"},  // first of "no id" and "empty id"
      {"<s id=''/>", "none"},   {"<s iD='1'/>", "one"},   {"<s id='2'/>", "two"},
      {"<S id='2'/>", "upper"}, {"<s id='3'/>", nullptr},
  };
  for (const auto& c : cases) {
    const XMLElement* match = kt::FindElementByNameAndId(parent, Doc(c.probe));
    if (c.found == nullptr) {
      EXPECT_EQ(match, nullptr) << c.probe;
    } else {
      ASSERT_NE(match, nullptr) << c.probe;
      EXPECT_EQ(match->value, c.found) << c.probe;
    }
  }
}

TEST(XmlMerge, DiffOfIdenticalTreesLeavesOnlyIdentities) {
  const std::string text =
      "<s id='1' x='1' ID='9'><c id='2' y='2'>v</c><d>t</d><e id='3'><f>deep</f></e></s>";
  XMLElement a = Doc(text), b = Doc(text);
  XMLElement::Diff(a, b);
  // "ID" is not exactly "id", so it is compared, but the lookup ignoring case finds "id" first,
  // whose value differs: it stays on both sides.
  EXPECT_EQ(Describe(a), "s[id=1,ID=9]");
  EXPECT_EQ(Describe(b), "s[id=1,ID=9]");
}

TEST(XmlMerge, DiffKeepsWhatDiffers) {
  XMLElement a =
      Doc("<r x='1' z='same'><v> 1 </v><w>1</w><only>a</only><n id='1'><k>x</k><l>1</l></n></r>");
  XMLElement b = Doc("<r x='2' z='same'><v>1</v><w>2</w><n id='1'><k>y</k><l>1</l></n></r>");
  XMLElement::Diff(a, b);
  // v differs only in white space and goes; w differs and stays on both sides; n keeps its
  // identity to place the difference of k below it.
  EXPECT_EQ(Describe(a), "r[x=1](w=\"1\" only=\"a\" n[id=1](k=\"x\"))");
  EXPECT_EQ(Describe(b), "r[x=2](w=\"2\" n[id=1](k=\"y\"))");

  // A matched pair is removed on each side only where it is empty.
  XMLElement c = Doc("<r><m id='1' q='1'/></r>");
  XMLElement d = Doc("<r><m id='1' q='2'/></r>");
  XMLElement::Diff(c, d);
  EXPECT_EQ(Describe(c), "r(m[id=1,q=1])");
  EXPECT_EQ(Describe(d), "r(m[id=1,q=2])");
}

TEST(XmlMerge, AddElementsReportsOnlyRealChanges) {
  const std::string text = "<s id='1' a='1'><c>v</c><d id='2'><e>x</e></d></s>";
  XMLElement dst = Doc(text);
  bool changed = false;
  kt::AddElements(Doc(text), dst, changed);
  EXPECT_FALSE(changed);
  kt::AddElements(Doc("<s id='1' a='1'><c>\n v \n</c></s>"), dst, changed);
  EXPECT_FALSE(changed) << "values equal after trimming are no change";
  EXPECT_EQ(Describe(dst), "s[id=1,a=1](c=\"v\" d[id=2](e=\"x\"))");

  const char* const changes[] = {
      "<s id='1' a='2'/>",                     // attribute value
      "<s id='1' b='1'/>",                     // new attribute
      "<s id='1'>text</s>",                    // value
      "<t id='1'/>",                           // name
      "<s id='1'><new/></s>",                  // new child
      "<s id='1'><d id='2'><e>y</e></d></s>",  // a value deep down
  };
  for (const char* change : changes) {
    XMLElement target = Doc(text);
    bool flag = false;
    kt::AddElements(Doc(change), target, flag);
    EXPECT_TRUE(flag) << change;
  }

  // The changed attribute keeps its own spelling and place; new ones go last.
  XMLElement target = Doc("<s ID='1' A='1' z='0'/>");
  kt::AddElements(Doc("<s b='7' a='2'/>"), target, changed);
  EXPECT_EQ(Describe(target), "s[ID=1,A=2,z=0,b=7]");

  // A different name or value at the top is taken over untrimmed.
  kt::AddElements(Doc("<t> x </t>"), target, changed);
  EXPECT_EQ(Describe(target), "t[ID=1,A=2,z=0,b=7]=\" x \"");

  bool stays = true;
  kt::AddElements(Doc(text), dst, stays);
  EXPECT_TRUE(stays) << "changed is never reset";
}

TEST(XmlMerge, AddElementsMatchesChildrenByNameAndId) {
  XMLElement dst = Doc("<r><s>plain</s><s id='2'>two</s></r>");
  bool changed = false;
  kt::AddElements(Doc("<r><s id='1'>one</s><s id='2'>TWO</s><s>PLAIN</s></r>"), dst, changed);
  EXPECT_TRUE(changed);
  EXPECT_EQ(Describe(dst), "r(s=\"PLAIN\" s[id=2]=\"TWO\" s[id=1]=\"one\")");
}

TEST(XmlMerge, RemoveElementsRemovesIdentifiedLeavesAndNamedAttributes) {
  const std::string text =
      "<r id='0' a='1' b='2'><s id='1'>v</s><s id='2' k='1' j='2'>w</s><t><u>1</u><u2/></t></r>";
  XMLElement dst = Doc(text);
  bool changed = false;
  kt::RemoveElements(Doc("<r id='x' A='' ><s id='1'> v </s><s id='2' k=''/><t><u>1</u></t></r>"),
                     dst, changed);
  EXPECT_TRUE(changed);
  // s1 is named by identity alone with an equal trimmed value: removed. s2 carries another
  // attribute: only that attribute goes. "id" is never removed, whatever its value.
  EXPECT_EQ(Describe(dst), "r[id=0,b=2](s[id=2,j=2]=\"w\" t(u2))");

  XMLElement keep = Doc(text);
  bool unchanged = false;
  kt::RemoveElements(Doc("<r id='0'><s id='1'>other</s><s id='3'/><missing/></r>"), keep,
                     unchanged);
  EXPECT_FALSE(unchanged) << "a differing value or a missing counterpart removes nothing";
  EXPECT_EQ(Describe(keep), Describe(Doc(text)));

  XMLElement holder = Doc("<h x='1'><a/><b><c/></b></h>");
  kt::RemoveElements(&holder);
  kt::RemoveElements(nullptr);
  EXPECT_EQ(Describe(holder), "h[x=1]");
}

TEST(XmlMerge, CompressElementsStripsWhatIsUnchanged) {
  XMLElement target =
      Doc("<r id='1' a='1' b='2'><s id='1' k='same' l='new'><x>1</x><y>2</y></s>"
          "<t><u/><v/><w/></t><extra/></r>");
  XMLElement ref =
      Doc("<r id='1' a='1' b='3'><s id='1' k='same' l='old'><x>9</x><y>9</y></s>"
          "<t><u/><v/></t></r>");
  kt::CompressElements(target, &ref);
  // s has as many children as its counterpart, whatever their values: they go. t and the top
  // element have more than theirs: they keep them. Equal attributes go, "id" stays.
  EXPECT_EQ(Describe(target), "r[id=1,b=2](s[id=1,l=new] t(u v w) extra)");

  XMLElement same = Doc("<r id='1'><s id='1'/><t><u/></t></r>");
  XMLElement sameRef = Doc("<r id='1'><s id='1'/><t><u/></t></r>");
  kt::CompressElements(same, &sameRef);
  EXPECT_EQ(Describe(same), "r[id=1]");

  XMLElement differentId = Doc("<r id='1'><s/></r>");
  XMLElement differentIdRef = Doc("<r id='2'><s/></r>");
  kt::CompressElements(differentId, &differentIdRef);
  EXPECT_EQ(Describe(differentId), "r[id=1](s)");

  XMLElement leafRef = Doc("<s id='1'/>");
  XMLElement other = Doc("<s id='1'><x/></s>");
  kt::CompressElements(other, &leafRef);
  EXPECT_EQ(Describe(other), "s[id=1](x)") << "a childless reference keeps the children";
  kt::CompressElements(other, nullptr);
  EXPECT_EQ(Describe(other), "s[id=1](x)");
}

TEST(XmlMergeDeathTest, CompressElementsAbortsWhenACounterpartIsMissing) {
  XMLElement target = Doc("<r><s id='1'/></r>");
  XMLElement ref = Doc("<r><s id='2'/></r>");
  EXPECT_DEATH(kt::CompressElements(target, &ref),
               "Assertion failed: \\(a_element != NULL\\), function CompressElements, file xml");
}

TEST(XmlMerge, SearchElementsFollowsTheFirstChildChain) {
  XMLElement tree = Doc("<r>v<a>1<b>2</b></a><a>1<b>3<c>4</c></b></a></r>");
  XMLElement* firstA = tree.children[0];
  XMLElement* secondB = tree.children[1]->children[0];

  // Patterns compare values only; names are irrelevant.
  EXPECT_EQ(kt::SearchElements(&tree, &tree), firstA) << "down the first children to a leaf";
  XMLElement leafPattern = Doc("<x>other</x>");
  EXPECT_EQ(kt::SearchElements(&tree, &leafPattern), &tree) << "a leaf pattern matches anything";

  XMLElement chain = Doc("<p>v<q>1<r>2</r></q></p>");
  EXPECT_EQ(kt::SearchElements(&tree, &chain), firstA) << "the parent of the matched leaf";
  XMLElement deeper = Doc("<p>v<q>1<r>3<s>4</s></r></q></p>");
  EXPECT_EQ(kt::SearchElements(&tree, &deeper), secondB);
  XMLElement onlyFirst = Doc("<p>v<q>1<r>2</r></q><q>nothing</q></p>");
  EXPECT_EQ(kt::SearchElements(&tree, &onlyFirst), firstA) << "later pattern children are unused";

  XMLElement wrongTop = Doc("<p>w<q>1</q></p>");
  EXPECT_EQ(kt::SearchElements(&tree, &wrongTop), nullptr);
  XMLElement absent = Doc("<p>v<q>1<r>5</r></q></p>");
  EXPECT_EQ(kt::SearchElements(&tree, &absent), nullptr);
  EXPECT_EQ(kt::SearchElements(nullptr, &chain), nullptr);
}

}  // namespace
