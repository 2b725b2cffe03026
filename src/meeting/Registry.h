// The participant registry of the meeting session: participants by key (ascending byte order),
// with indexes by audio and by video stream id so that the stream lookups of the event hot path do
// not walk every participant.
//
// A key is not always the stored participant's UUID. Local video streams are filed under the key
// of the local participant (Editor::localUuid), whatever e-mail their event names; when no local
// participant is registered that key is "", and the participant created there carries the event's
// e-mail as its uuid. So handlers that reach a participant through a stream index read the stored
// uuid before they edit, and a departing participant is erased by the uuid stored in its record.
// Code that holds a key must not assume key == participant.uuid.
//
// Thread safety: every member is safe to call from any thread. One mutex guards the map and both
// indexes; it is held only for the length of a lookup or an update and never while the caller runs
// anything else (in particular never across a delegate call: callers take a snapshot and report it
// after the lock is released). Participants are stored as immutable snapshots; an update replaces
// the snapshot, so a snapshot handed out stays valid and unchanged for as long as its holder keeps
// it.
#ifndef CONVOKE_MEETING_REGISTRY_H
#define CONVOKE_MEETING_REGISTRY_H

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "meeting/Participant.h"

namespace Telmora {

using ParticipantSnapshot = std::shared_ptr<const Participant>;

class Registry {
 public:
  // Mutable access to the registry while its lock is held; only Registry::update hands one out.
  // Every change goes through it so that the indexes stay in step with the map.
  class Editor {
   public:
    // The participant stored under key, or null.
    const Participant* find(const std::string& key) const;
    // Inserts a copy of participant under key unless the key is taken (then nothing changes).
    // Returns true when it was inserted.
    bool insert(const std::string& key, const Participant& participant);
    // Erases the participant stored under key; false when there is none.
    bool erase(const std::string& key);
    // Replaces the audio info of the participant under key (which must exist).
    void setAudioInfo(const std::string& key, const AudioInfo& info);
    // Stores info under its stream id in the participant under key unless that id is already
    // there. Returns true when it was stored.
    bool addVideoInfo(const std::string& key, const VideoInfo& info);
    // Erases a stream id from the participant under key; false when either is missing.
    bool eraseVideoInfo(const std::string& key, const std::string& streamId);
    // Changes one stored VideoInfo in place (the function receives it); false when either the key
    // or the stream id is missing.
    template <class F>
    bool modifyVideoInfo(const std::string& key, const std::string& streamId, F&& change);
    // The same on an entry that firstEntryByVideoStreamId returned, without a search of the map.
    template <class F>
    bool modifyVideoInfo(const std::pair<const std::string, ParticipantSnapshot>* entry,
                         const std::string& streamId, F&& change);
    // The key of the first participant (in key order) holding the video stream, or null.
    const std::string* firstKeyByVideoStreamId(const std::string& streamId) const;
    // The first participant (in key order) holding the video stream, with the key it is stored
    // under, found through the index without a search of the map; null when there is none.
    const std::pair<const std::string, ParticipantSnapshot>* firstEntryByVideoStreamId(
        const std::string& streamId) const;
    // The key of the first participant whose audio stream id equals streamId, or null.
    const std::string* firstKeyByAudioStreamId(const std::string& streamId) const;
    // The uuid of the first local participant in key order, or "" when there is none.
    std::string localUuid() const;
    // A snapshot of the participant under key (null when absent), to report after the update.
    ParticipantSnapshot snapshot(const std::string& key) const;

   private:
    friend class Registry;
    explicit Editor(Registry& registry) : r_(registry) {}
    static std::shared_ptr<Participant> mutableCopy(const Participant& participant);
    Registry& r_;
  };

  // Runs change(Editor&) with the lock held and returns its result. change must not call back into
  // the registry, the delegate or an engine.
  template <class F>
  auto update(F&& change) {
    std::lock_guard<std::mutex> lock(mutex_);
    Editor editor(*this);
    return change(editor);
  }

  // Lookups. Each copies the found record into out and returns true; on a miss out is unchanged.
  bool findByKey(const std::string& key, Participant& out) const;
  bool findByVideoStreamId(const std::string& streamId, Participant& out) const;
  bool findByAudioStreamId(const std::string& streamId, Participant& out) const;
  bool findVideoInfo(const std::string& streamId, VideoInfo& out) const;
  // Copies the first local participant in key order; out is unchanged when there is none.
  void getLocal(Participant& out) const;
  // Appends every key in ascending order.
  void keys(std::vector<std::string>& out) const;

  // Snapshot lookups for the event hot path (null on a miss).
  ParticipantSnapshot snapshotByKey(const std::string& key) const;
  ParticipantSnapshot snapshotByAudioStreamId(const std::string& streamId) const;
  ParticipantSnapshot snapshotByVideoStreamId(const std::string& streamId) const;

  // Under one lock: finds the first participant holding an audio stream (found tells whether there
  // is one) and returns the participant registered under that one's UUID, or null. When the found
  // participant's UUID is not registered, it is copied into unregisteredUuid. Copies no record.
  ParticipantSnapshot registeredByAudioStreamId(const std::string& streamId, bool& found,
                                                std::string& unregisteredUuid) const;

  std::size_t size() const;
  // Erases every participant, first to last.
  void clear();

 private:
  using Entries = std::map<std::string, std::shared_ptr<const Participant>>;
  using Entry = Entries::iterator;  // stable until its entry is erased
  // Entries in key order, also found by key alone.
  struct ByKey {
    using is_transparent = void;
    bool operator()(Entry a, Entry b) const { return a->first < b->first; }
    bool operator()(Entry a, const std::string& b) const { return a->first < b; }
    bool operator()(const std::string& a, Entry b) const { return a < b->first; }
  };
  // stream id -> the entries holding it, in key order. An index points at the map's entries, so
  // a stream lookup costs one hash lookup and no search of the map.
  using Index = std::unordered_map<std::string, std::set<Entry, ByKey>>;

  // The first entry holding the stream, or null.
  const Entries::value_type* firstEntry(const Index& index, const std::string& streamId) const;
  const std::string* firstKey(const Index& index, const std::string& streamId) const;
  ParticipantSnapshot snapshotLocked(const std::string* key) const;
  static void addToIndex(Index& index, const std::string& streamId, Entry entry);
  static void dropFromIndex(Index& index, const std::string& streamId, const std::string& key);
  void indexParticipant(Entry entry);
  void unindexParticipant(const std::string& key, const Participant& p);

  mutable std::mutex mutex_;
  Entries participants_;  // guarded by mutex_
  Index audioIndex_;      // guarded by mutex_
  Index videoIndex_;      // guarded by mutex_
};

template <class F>
bool Registry::Editor::modifyVideoInfo(const std::string& key, const std::string& streamId,
                                       F&& change) {
  auto it = r_.participants_.find(key);
  if (it == r_.participants_.end() || it->second->videoInfos.count(streamId) == 0) return false;
  std::shared_ptr<Participant> copy = mutableCopy(*it->second);
  change(copy->videoInfos.find(streamId)->second);
  it->second = std::move(copy);
  return true;
}

template <class F>
bool Registry::Editor::modifyVideoInfo(
    const std::pair<const std::string, ParticipantSnapshot>* entry, const std::string& streamId,
    F&& change) {
  if (entry->second->videoInfos.count(streamId) == 0) return false;
  std::shared_ptr<Participant> copy = mutableCopy(*entry->second);
  change(copy->videoInfos.find(streamId)->second);
  // The entry is one of this registry's own map entries, handed out by firstEntryByVideoStreamId.
  const_cast<std::pair<const std::string, ParticipantSnapshot>*>(entry)->second = std::move(copy);
  return true;
}

}  // namespace Telmora

#endif  // CONVOKE_MEETING_REGISTRY_H
