// The Janus VideoRoom messages the open engines build and read, checked through a JSON parser.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "janus.h"

namespace {

using ktopen::Json;

Json Parsed(const std::string& text) {
  std::string error;
  Json json = Json::Parse(text, &error);
  EXPECT_FALSE(json.empty()) << text << ": " << error;
  return json;
}

TEST(JanusMessages, QuoteRoundTripsThroughAJsonParser) {
  const std::string awkward = std::string("say \"hi\"\\ \n\t\x01 caf\xc3\xa9 </b>") + '\x1f';
  Json json = Parsed("{\"text\":" + ktopen::Quote(awkward) + "}");
  EXPECT_EQ(ktopen::StringMember(json.object(), "text"), awkward);
  EXPECT_EQ(ktopen::Quote(""), "\"\"");
}

TEST(JanusMessages, RequestsCarryTheRoomAndIdsAsStrings) {
  Json create = Parsed(ktopen::CreateRoomRequest("stand\"up"));
  JsonObject* c = create.object();
  EXPECT_EQ(ktopen::StringMember(c, "request"), "create");
  EXPECT_EQ(ktopen::StringMember(c, "room"), "stand\"up");
  EXPECT_EQ(ktopen::IntMember(c, "publishers"), 16);
  EXPECT_TRUE(json_object_get_boolean_member(c, "audiolevel_event"));
  EXPECT_TRUE(json_object_get_boolean_member(c, "notify_joining"));

  Json join = Parsed(ktopen::PublisherJoinRequest("r", "Ann \\ Lee", "host-a"));
  JsonObject* j = join.object();
  EXPECT_EQ(ktopen::StringMember(j, "request"), "join");
  EXPECT_EQ(ktopen::StringMember(j, "ptype"), "publisher");
  EXPECT_EQ(ktopen::StringMember(j, "display"), "Ann \\ Lee");
  EXPECT_EQ(ktopen::StringMember(j, "id"), "host-a");
  // Without an id the server chooses one: no empty id is sent.
  Json anonymous = Parsed(ktopen::PublisherJoinRequest("r", "Ann", ""));
  EXPECT_FALSE(json_object_has_member(anonymous.object(), "id"));

  Json sub = Parsed(ktopen::SubscriberJoinRequest("r", "host-b", "12345678901"));
  JsonObject* s = sub.object();
  EXPECT_EQ(ktopen::StringMember(s, "ptype"), "subscriber");
  EXPECT_EQ(ktopen::IntMember(s, "private_id"), 12345678901);
  JsonArray* streams = ktopen::ArrayMember(s, "streams");
  ASSERT_NE(streams, nullptr);
  ASSERT_EQ(json_array_get_length(streams), 1u);
  EXPECT_EQ(ktopen::StringMember(json_array_get_object_element(streams, 0), "feed"), "host-b");
  // A private id that is no number is left out rather than breaking the JSON.
  Json odd = Parsed(ktopen::SubscriberJoinRequest("r", "host-b", "1,\"x\":2"));
  EXPECT_FALSE(json_object_has_member(odd.object(), "private_id"));
  EXPECT_FALSE(json_object_has_member(odd.object(), "x"));
}

TEST(JanusMessages, AnnouncedPublishersKeepThoseWithIdAndMedia) {
  // A joined answer as the VideoRoom sends it, with one publisher of each kind.
  Json joined = Parsed(R"({"videoroom":"joined","room":"r","id":"host-a","private_id":77,
    "publishers":[
      {"id":"host-b","display":"Host B","streams":[{"type":"audio","mindex":0},
                                                   {"type":"video","mindex":1}]},
      {"id":"talker","display":"Radio","streams":[{"type":"audio"},{"type":"data"}]},
      {"id":"data-only","streams":[{"type":"data"}]},
      {"display":"no id"},
      {"id":42,"display":"numeric"},
      "not an object",
      {"id":"old-style","display":"Old"}
    ]})");
  const std::vector<ktopen::RoomPublisher> found = ktopen::AnnouncedPublishers(joined.object());
  ASSERT_EQ(found.size(), 4u);
  EXPECT_EQ(found[0].id, "host-b");
  EXPECT_EQ(found[0].display, "Host B");
  EXPECT_TRUE(found[0].audio && found[0].video);
  EXPECT_EQ(found[1].id, "talker");
  EXPECT_TRUE(found[1].audio);
  EXPECT_FALSE(found[1].video);
  EXPECT_EQ(found[2].id, "42");
  EXPECT_EQ(found[3].id, "old-style");  // no streams list: both media
  EXPECT_TRUE(found[3].audio && found[3].video);

  EXPECT_TRUE(ktopen::AnnouncedPublishers(nullptr).empty());
  Json none = Parsed(R"({"videoroom":"event","publishers":{"id":"x"}})");
  EXPECT_TRUE(ktopen::AnnouncedPublishers(none.object()).empty());
}

TEST(JanusMessages, DepartedPublisherFromLeavingOrUnpublished) {
  EXPECT_EQ(ktopen::DepartedPublisher(Parsed(R"({"leaving":"host-b"})").object()), "host-b");
  EXPECT_EQ(ktopen::DepartedPublisher(Parsed(R"({"unpublished":"host-c"})").object()), "host-c");
  EXPECT_EQ(ktopen::DepartedPublisher(Parsed(R"({"unpublished":9})").object()), "9");
  // Our own leave is acknowledged with "ok", which names nobody.
  EXPECT_EQ(ktopen::DepartedPublisher(Parsed(R"({"leaving":"ok"})").object()), "");
  EXPECT_EQ(ktopen::DepartedPublisher(Parsed(R"({"joining":{"id":"x"}})").object()), "");
  EXPECT_EQ(ktopen::DepartedPublisher(nullptr), "");
}

TEST(JanusMessages, MemberLookupsTolerateMissingMembersAndWrongTypes) {
  Json json = Parsed(R"({"n":5,"d":2.75,"s":"text","o":{"k":"v"},"a":[1],"b":true,"z":null})");
  JsonObject* o = json.object();
  EXPECT_EQ(ktopen::IntMember(o, "n"), 5);
  EXPECT_EQ(ktopen::IntMember(o, "d"), 2);
  EXPECT_EQ(ktopen::IntMember(o, "s", -1), -1);
  EXPECT_EQ(ktopen::IntMember(o, "missing", -2), -2);
  EXPECT_EQ(ktopen::IntMember(nullptr, "n", -3), -3);
  EXPECT_EQ(ktopen::StringMember(o, "s"), "text");
  EXPECT_EQ(ktopen::StringMember(o, "n"), "5");
  for (const char* name : {"o", "a", "b", "z", "missing"}) {
    EXPECT_EQ(ktopen::StringMember(o, name), "") << name;
  }
  EXPECT_NE(ktopen::ObjectMember(o, "o"), nullptr);
  EXPECT_EQ(ktopen::ObjectMember(o, "a"), nullptr);
  EXPECT_NE(ktopen::ArrayMember(o, "a"), nullptr);
  EXPECT_EQ(ktopen::ArrayMember(o, "o"), nullptr);
  EXPECT_EQ(ktopen::ObjectMember(nullptr, "o"), nullptr);

  std::string error;
  EXPECT_TRUE(Json::Parse("{\"unterminated\":", &error).empty());
  EXPECT_NE(error.find("Invalid JSON from the meeting server"), std::string::npos) << error;
  Json copy = json;
  Json assigned;
  assigned = copy;
  EXPECT_EQ(assigned.node(), json.node());
  EXPECT_EQ(Json::Parse("[1,2]", nullptr).object(), nullptr);
}

}  // namespace
