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
  r_.indexParticipant(key, participant);
  return true;
}

bool Registry::Editor::erase(const std::string& key) {
  auto it = r_.participants_.find(key);
  if (it == r_.participants_.end()) return false;
  r_.unindexParticipant(key, *it->second);
  r_.participants_.erase(it);
  return true;
}

std::shared_ptr<Participant> Registry::Editor::mutableCopy(const std::string& key) {
  return std::make_shared<Participant>(*r_.participants_.at(key));
}

void Registry::Editor::setAudioInfo(const std::string& key, const AudioInfo& info) {
  auto it = r_.participants_.find(key);
  if (it == r_.participants_.end()) return;
  std::shared_ptr<Participant> copy = mutableCopy(key);
  auto& keys = r_.audioIndex_[copy->audioInfo.streamId];
  keys.erase(key);
  if (keys.empty()) r_.audioIndex_.erase(copy->audioInfo.streamId);
  copy->audioInfo = info;
  r_.audioIndex_[info.streamId].insert(key);
  it->second = std::move(copy);
}

bool Registry::Editor::addVideoInfo(const std::string& key, const VideoInfo& info) {
  auto it = r_.participants_.find(key);
  if (it == r_.participants_.end() || it->second->videoInfos.count(info.streamId) != 0) {
    return false;
  }
  std::shared_ptr<Participant> copy = mutableCopy(key);
  copy->videoInfos.emplace(info.streamId, info);
  r_.videoIndex_[info.streamId].insert(key);
  it->second = std::move(copy);
  return true;
}

bool Registry::Editor::eraseVideoInfo(const std::string& key, const std::string& streamId) {
  auto it = r_.participants_.find(key);
  if (it == r_.participants_.end() || it->second->videoInfos.count(streamId) == 0) return false;
  std::shared_ptr<Participant> copy = mutableCopy(key);
  copy->videoInfos.erase(streamId);
  auto index = r_.videoIndex_.find(streamId);
  index->second.erase(key);
  if (index->second.empty()) r_.videoIndex_.erase(index);
  it->second = std::move(copy);
  return true;
}

const std::string* Registry::Editor::firstKeyByVideoStreamId(const std::string& streamId) const {
  return r_.firstKey(r_.videoIndex_, streamId);
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

const std::string* Registry::firstKey(const Index& index, const std::string& streamId) const {
  auto it = index.find(streamId);
  if (it == index.end() || it->second.empty()) return nullptr;
  return &*it->second.begin();
}

ParticipantSnapshot Registry::snapshotLocked(const std::string* key) const {
  if (key == nullptr) return nullptr;
  auto it = participants_.find(*key);
  return it == participants_.end() ? nullptr : it->second;
}

void Registry::indexParticipant(const std::string& key, const Participant& p) {
  audioIndex_[p.audioInfo.streamId].insert(key);
  for (const auto& entry : p.videoInfos) videoIndex_[entry.first].insert(key);
}

void Registry::unindexParticipant(const std::string& key, const Participant& p) {
  auto drop = [&key](Index& index, const std::string& streamId) {
    auto it = index.find(streamId);
    if (it == index.end()) return;
    it->second.erase(key);
    if (it->second.empty()) index.erase(it);
  };
  drop(audioIndex_, p.audioInfo.streamId);
  for (const auto& entry : p.videoInfos) drop(videoIndex_, entry.first);
}

bool Registry::findByKey(const std::string& key, Participant& out) const {
  ParticipantSnapshot p = snapshotByKey(key);
  if (!p) return false;
  out = *p;
  return true;
}

bool Registry::findByVideoStreamId(const std::string& streamId, Participant& out) const {
  ParticipantSnapshot p = snapshotByVideoStreamId(streamId);
  if (!p) return false;
  out = *p;
  return true;
}

bool Registry::findByAudioStreamId(const std::string& streamId, Participant& out) const {
  ParticipantSnapshot p = snapshotByAudioStreamId(streamId);
  if (!p) return false;
  out = *p;
  return true;
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
  return snapshotLocked(firstKey(audioIndex_, streamId));
}

ParticipantSnapshot Registry::snapshotByVideoStreamId(const std::string& streamId) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return snapshotLocked(firstKey(videoIndex_, streamId));
}

ParticipantSnapshot Registry::registeredByAudioStreamId(const std::string& streamId,
                                                        ParticipantSnapshot& found) const {
  std::lock_guard<std::mutex> lock(mutex_);
  found = snapshotLocked(firstKey(audioIndex_, streamId));
  return found ? snapshotLocked(&found->uuid) : nullptr;
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
