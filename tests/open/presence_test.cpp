// The state a publisher states through its display name: written and read back, escaped, and read
// leniently from a plain name or a damaged text.
#include <gtest/gtest.h>

#include <string>

#include "presence.h"

namespace {

using ktopen::DecodePresence;
using ktopen::EncodePresence;
using ktopen::Presence;

TEST(Presence, RoundTripsEveryFieldAndEscapesSeparators) {
  Presence p;
  p.name = "Ann; the=100%";
  p.owner = "ann;1";
  p.label = "Ann - Screen Capture";
  p.profile = "VP8 4K (10FPS)";
  p.muted = true;
  p.width = 1280;
  p.height = 720;
  p.layout = ktopen::kScreenLayout;
  const std::string text = EncodePresence(p);
  EXPECT_EQ(text.rfind("Ann; the=100%\x1f", 0), 0u) << text;  // the name stays readable
  const Presence q = DecodePresence(text);
  EXPECT_EQ(q.name, p.name);
  EXPECT_EQ(q.owner, p.owner);
  EXPECT_EQ(q.label, p.label);
  EXPECT_EQ(q.profile, p.profile);
  EXPECT_TRUE(q.muted);
  EXPECT_EQ(q.width, 1280);
  EXPECT_EQ(q.height, 720);
  EXPECT_EQ(q.layout, ktopen::kScreenLayout);

  Presence separator;
  separator.name =
      "a\x1f"
      "b";
  EXPECT_EQ(DecodePresence(EncodePresence(separator)).name, "a b");
}

TEST(Presence, PlainOrDamagedTextsGiveTheDefaults) {
  const Presence plain = DecodePresence("Bob");
  EXPECT_EQ(plain.name, "Bob");
  EXPECT_FALSE(plain.muted);
  EXPECT_EQ(plain.width, 640);
  EXPECT_EQ(plain.height, 480);
  EXPECT_EQ(plain.layout, 0);
  EXPECT_TRUE(plain.owner.empty());
  EXPECT_EQ(plain.profile, "VP8 640x480 (30FPS)");

  const Presence damaged = DecodePresence("Bob\x1fm=1;w=abc;h=-5;l=999;x=1;;n=%4;o");
  EXPECT_EQ(damaged.name, "Bob");
  EXPECT_TRUE(damaged.muted);
  EXPECT_EQ(damaged.width, 640);
  EXPECT_EQ(damaged.height, 480);
  EXPECT_EQ(damaged.layout, 0);
  EXPECT_EQ(damaged.label, "%4");
  EXPECT_TRUE(damaged.owner.empty());
}

}  // namespace
