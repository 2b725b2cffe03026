#include "meeting/Registry.h"

#include <utility>

namespace Telmora {

// ---- Editor ---------------------------------------------------------------------------------

const Participant* Registry::Editor::find(const std::string& key) const {
  auto it = r_.participants_.find(key);
  return it == r_.participants_.end() ? nullptr : it->second.get();
}

bool Registry::Editor::insert(const std::string& key, const Participant& participant) {
  auto result = r_.participants_.emplace(key, nullptr);
  if (!result.second) return false;
  result.first->second = std::make_shared<const Participant>(participant);
  r_.indexParticipant(result.first);
  return true;
}

bool Registry::Editor::erase(const std::string& key) {
  auto it = r_.participants_.find(key);
  if (it == r_.participants_.end()) return false;
  r_.unindexParticipant(key, *it->second);
  r_.participants_.erase(it);
  return true;
}

std::shared_ptr<Participant> Registry::Editor::mutableCopy(const Participant& participant) {
  return std::make_shared<Participant>(participant);
}

void Registry::Editor::setAudioInfo(const std::string& key, const AudioInfo& info) {
  auto it = r_.participants_.find(key);
  if (it == r_.participants_.end()) return;
  std::shared_ptr<Participant> copy = mutableCopy(*it->second);
  dropFromIndex(r_.audioIndex_, copy->audioInfo.streamId, key);
  copy->audioInfo = info;
  addToIndex(r_.audioIndex_, info.streamId, it);
  it->second = std::move(copy);
}

bool Registry::Editor::addVideoInfo(const std::string& key, const VideoInfo& info) {
  auto it = r_.participants_.find(key);
  if (it == r_.participants_.end() || it->second->videoInfos.count(info.streamId) != 0) {
    return false;
  }
  std::shared_ptr<Participant> copy = mutableCopy(*it->second);
  copy->videoInfos.emplace(info.streamId, info);
  addToIndex(r_.videoIndex_, info.streamId, it);
  it->second = std::move(copy);
  return true;
}

bool Registry::Editor::eraseVideoInfo(const std::string& key, const std::string& streamId) {
  auto it = r_.participants_.find(key);
  if (it == r_.participants_.end() || it->second->videoInfos.count(streamId) == 0) return false;
  std::shared_ptr<Participant> copy = mutableCopy(*it->second);
  copy->videoInfos.erase(streamId);
  dropFromIndex(r_.videoIndex_, streamId, key);
  it->second = std::move(copy);
  return true;
}

const std::string* Registry::Editor::firstKeyByVideoStreamId(const std::string& streamId) const {
  return r_.firstKey(r_.videoIndex_, streamId);
}

const std::pair<const std::string, ParticipantSnapshot>*
Registry::Editor::firstEntryByVideoStreamId(const std::string& streamId) const {
  return r_.firstEntry(r_.videoIndex_, streamId);
}

const std::string* Registry::Editor::firstKeyByAudioStreamId(const std::string& streamId) const {
  return r_.firstKey(r_.audioIndex_, streamId);
}

std::string Registry::Editor::localUuid() const {
  for (const auto& entry : r_.participants_) {
    if (entry.second->isLocal) return entry.second->uuid;
  }
  return std::string();
}

ParticipantSnapshot Registry::Editor::snapshot(const std::string& key) const {
  auto it = r_.participants_.find(key);
  return it == r_.participants_.end() ? nullptr : it->second;
}

// ---- Registry -------------------------------------------------------------------------------

const Registry::Entries::value_type* Registry::firstEntry(const Index& index,
                                                          const std::string& streamId) const {
  auto it = index.find(streamId);
  if (it == index.end() || it->second.empty()) return nullptr;
  return &**it->second.begin();
}

const std::string* Registry::firstKey(const Index& index, const std::string& streamId) const {
  const Entries::value_type* entry = firstEntry(index, streamId);
  return entry == nullptr ? nullptr : &entry->first;
}

void Registry::addToIndex(Index& index, const std::string& streamId, Entry entry) {
  index[streamId].insert(entry);
}

void Registry::dropFromIndex(Index& index, const std::string& streamId, const std::string& key) {
  auto it = index.find(streamId);
  if (it == index.end()) return;
  auto found = it->second.find(key);
  if (found != it->second.end()) it->second.erase(found);
  if (it->second.empty()) index.erase(it);
}

ParticipantSnapshot Registry::snapshotLocked(const std::string* key) const {
  if (key == nullptr) return nullptr;
  auto it = participants_.find(*key);
  return it == participants_.end() ? nullptr : it->second;
}

void Registry::indexParticipant(Entry entry) {
  const Participant& p = *entry->second;
  addToIndex(audioIndex_, p.audioInfo.streamId, entry);
  for (const auto& video : p.videoInfos) addToIndex(videoIndex_, video.first, entry);
}

void Registry::unindexParticipant(const std::string& key, const Participant& p) {
  dropFromIndex(audioIndex_, p.audioInfo.streamId, key);
  for (const auto& video : p.videoInfos) dropFromIndex(videoIndex_, video.first, key);
}

namespace {

// Copies the snapshot into out; false (out unchanged) when there is none.
bool copyOut(const ParticipantSnapshot& p, Participant& out) {
  if (!p) return false;
  out = *p;
  return true;
}

}  // namespace

bool Registry::findByKey(const std::string& key, Participant& out) const {
  return copyOut(snapshotByKey(key), out);
}

bool Registry::findByVideoStreamId(const std::string& streamId, Participant& out) const {
  return copyOut(snapshotByVideoStreamId(streamId), out);
}

bool Registry::findByAudioStreamId(const std::string& streamId, Participant& out) const {
  return copyOut(snapshotByAudioStreamId(streamId), out);
}

bool Registry::findVideoInfo(const std::string& streamId, VideoInfo& out) const {
  ParticipantSnapshot p = snapshotByVideoStreamId(streamId);
  if (!p) return false;
  out = p->videoInfos.at(streamId);
  return true;
}

void Registry::getLocal(Participant& out) const {
  ParticipantSnapshot found;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& entry : participants_) {
      if (entry.second->isLocal) {
        found = entry.second;
        break;
      }
    }
  }
  if (found) out = *found;
}

void Registry::keys(std::vector<std::string>& out) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& entry : participants_) out.push_back(entry.first);
}

ParticipantSnapshot Registry::snapshotByKey(const std::string& key) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return snapshotLocked(&key);
}

ParticipantSnapshot Registry::snapshotByAudioStreamId(const std::string& streamId) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const Entries::value_type* entry = firstEntry(audioIndex_, streamId);
  return entry == nullptr ? nullptr : entry->second;
}

ParticipantSnapshot Registry::snapshotByVideoStreamId(const std::string& streamId) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const Entries::value_type* entry = firstEntry(videoIndex_, streamId);
  return entry == nullptr ? nullptr : entry->second;
}

ParticipantSnapshot Registry::registeredByAudioStreamId(const std::string& streamId, bool& found,
                                                        std::string& unregisteredUuid) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const Entries::value_type* entry = firstEntry(audioIndex_, streamId);
  found = entry != nullptr;
  if (entry == nullptr) return nullptr;
  const std::string& uuid = entry->second->uuid;
  // A remote participant is filed under its own UUID; only local streams may be filed elsewhere.
  if (uuid == entry->first) return entry->second;
  ParticipantSnapshot registered = snapshotLocked(&uuid);
  if (!registered) unregisteredUuid = uuid;
  return registered;
}

std::size_t Registry::size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return participants_.size();
}

void Registry::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  participants_.clear();
  audioIndex_.clear();
  videoIndex_.clear();
}

}  // namespace Telmora
