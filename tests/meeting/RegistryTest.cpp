// The registry's indexes must give exactly the answers of a walk in key order.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "common/WaitUntil.h"
#include "meeting/Participant.h"
#include "meeting/Registry.h"

namespace Telmora {
namespace {

Participant withStreams(const std::string& uuid, const std::string& audio,
                        std::initializer_list<const char*> videos) {
  Participant p(uuid, uuid + "-site", false);
  p.audioInfo = AudioInfo(audio, "site");
  for (const char* id : videos)
    p.videoInfos.emplace(id, VideoInfo(id, "", "", "", "", "", "", "", ""));
  return p;
}

TEST(Records, ConversionsAreExactAndTruncating) {
  const VideoInfo info("v", "s", "n", "c", "true", "TRUE", "300", "12abc", "x");
  EXPECT_TRUE(info.local);
  EXPECT_FALSE(info.active);
  EXPECT_EQ(info.layout, 44);
  EXPECT_EQ(info.width, 12);
  EXPECT_EQ(info.height, 0);
  EXPECT_FALSE(VideoInfo("v", "", "", "", "1", "true ", "", "", "").local);
  EXPECT_FALSE(VideoInfo("v", "", "", "", "1", "true ", "", "", "").active);
}

TEST(Registry, StreamLookupsReturnTheFirstParticipantInKeyOrder) {
  Registry registry;
  registry.update([](Registry::Editor& e) {
    e.insert("carol", withStreams("carol", "a1", {"v1", "v2"}));
    e.insert("bob", withStreams("bob", "a1", {"v2"}));
    e.insert("dave", withStreams("dave", "", {}));
    e.insert("alice", withStreams("alice", "", {}));
  });
  Participant out;
  ASSERT_TRUE(registry.findByVideoStreamId("v2", out));
  EXPECT_EQ(out.uuid, "bob");
  ASSERT_TRUE(registry.findByAudioStreamId("a1", out));
  EXPECT_EQ(out.uuid, "bob");
  ASSERT_TRUE(registry.findByAudioStreamId("", out));  // first one without an audio stream
  EXPECT_EQ(out.uuid, "alice");

  // The indexes follow every change.
  registry.update([](Registry::Editor& e) {
    e.eraseVideoInfo("bob", "v2");
    e.setAudioInfo("bob", AudioInfo("a2", "x"));
    e.erase("alice");
  });
  ASSERT_TRUE(registry.findByVideoStreamId("v2", out));
  EXPECT_EQ(out.uuid, "carol");
  ASSERT_TRUE(registry.findByAudioStreamId("a1", out));
  EXPECT_EQ(out.uuid, "carol");
  ASSERT_TRUE(registry.findByAudioStreamId("a2", out));
  EXPECT_EQ(out.uuid, "bob");
  ASSERT_TRUE(registry.findByAudioStreamId("", out));
  EXPECT_EQ(out.uuid, "dave");

  // A miss leaves the output alone; insert keeps an existing entry.
  out.uuid = "unchanged";
  EXPECT_FALSE(registry.findByVideoStreamId("nope", out));
  EXPECT_EQ(out.uuid, "unchanged");
  EXPECT_FALSE(registry.update(
      [](Registry::Editor& e) { return e.insert("bob", withStreams("bob", "zz", {})); }));
  EXPECT_FALSE(registry.findByAudioStreamId("zz", out));

  registry.clear();
  EXPECT_EQ(registry.size(), 0u);
  EXPECT_FALSE(registry.findByAudioStreamId("", out));
}

TEST(Registry, SnapshotsStayValidWhileTheRegistryChanges) {
  Registry registry;
  registry.update([](Registry::Editor& e) { e.insert("bob", withStreams("bob", "a1", {"v1"})); });
  ParticipantSnapshot before = registry.snapshotByKey("bob");
  registry.update([](Registry::Editor& e) {
    e.modifyVideoInfo("bob", "v1", [](VideoInfo& v) { v.width = 99; });
  });
  registry.clear();
  EXPECT_EQ(before->videoInfos.at("v1").width, 0);
}

// Every update is followed by at least one whole lookup that began after it, while the reader
// keeps looking up during the next update: the two threads interleave on any machine.
TEST(Registry, ConcurrentUpdatesAndLookupsAreSafe) {
  Registry registry;
  std::atomic<bool> done{false};
  std::atomic<int> lookups{0};
  std::atomic<int> hits{0};
  std::atomic<int> inconsistent{0};
  std::thread reader([&] {
    while (!done.load()) {
      // Whatever a lookup finds is one whole record: a key "p<n>" owning both streams.
      Participant audio;
      if (registry.findByAudioStreamId("a1", audio)) {
        hits.fetch_add(1);
        if (audio.uuid.compare(0, 1, "p") != 0 || audio.audioInfo.streamId != "a1" ||
            audio.videoInfos.count("v1") != 1) {
          inconsistent.fetch_add(1);
        }
      }
      Participant video;
      if (registry.findByVideoStreamId("v1", video) && video.audioInfo.streamId != "a1") {
        inconsistent.fetch_add(1);
      }
      lookups.fetch_add(1);
    }
  });
  // Seven keys, each inserted and erased in turn; present[] follows what the registry must hold.
  int present[7] = {0};
  bool interleaved = true;
  for (int i = 0; i < 2000 && interleaved; ++i) {
    const std::string key = "p" + std::to_string(i % 7);
    const bool inserted = registry.update([&](Registry::Editor& e) {
      if (e.insert(key, withStreams(key, "a1", {"v1"}))) return true;
      e.erase(key);
      return false;
    });
    present[i % 7] = inserted ? 1 : 0;
    // The lookup in progress may have begun before the update; the one after it cannot.
    const int seen = lookups.load();
    interleaved = convoke_test_support::waitUntil([&] { return lookups.load() >= seen + 2; });
  }
  done.store(true);
  reader.join();
  ASSERT_TRUE(interleaved) << "the reader stopped looking up";
  EXPECT_EQ(inconsistent.load(), 0);
  // The first update inserts p0 with stream a1, and a whole lookup follows it.
  EXPECT_GT(hits.load(), 0);
  std::size_t expected = 0;
  for (int k = 0; k < 7; ++k) {
    const bool there = registry.snapshotByKey("p" + std::to_string(k)) != nullptr;
    EXPECT_EQ(there, present[k] == 1) << k;
    expected += present[k];
  }
  EXPECT_EQ(registry.size(), expected);
}

}  // namespace
}  // namespace Telmora
