// The open core's subscriptions: one receiving peer connection per remote publisher, its streams'
// announcements and removals, and the frames the product polls. AddRemote, Subscribe and
// RemoveRemote run on the worker thread; FrameReady on the product's frame-polling threads.
#include "core_private.h"
#include "peer_names.h"

#include <thread>

namespace ktopen {

void Core::AddRemote(const RoomPublisher& publisher) {
  const std::string& feed = publisher.id;
  if (feed == my_id_ || remotes_.count(feed)) return;
  const bool video = publisher.video;
  auto remote = std::make_unique<Remote>();
  // The id, the name and all that the sender states are the peer's own choice: the documents get
  // safe stream ids and clean, short texts (peer_names.h).
  const std::string base = StreamBase(feed), identity = CleanName(feed);
  remote->feed = feed;
  // A further stream (a screen, network video) belongs to its owner; our own are not received.
  remote->presence = DecodePresence(publisher.display);
  const Presence& p = remote->presence;
  remote->display = CleanName(p.name);
  remote->extra = !p.owner.empty();
  if (remote->extra && (p.owner == uuid_ || !video)) return;
  remote->audio_id = remote->extra ? "" : base + "/audio";
  if (video) {
    remote->video_id = base + "/video";
    remote->slot = std::make_shared<FrameSlot>();
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!remote->extra) {
      audio_ids_.insert(remote->audio_id);
      levels_[remote->audio_id] = 0;
      muted_[remote->audio_id] = p.muted;
    }
    if (video) videos_[remote->video_id] = remote->slot;
  }
  if (!remote->extra) {
    Emit(kAudio, StreamEvent("audio_site_changed", remote->audio_id,
                             Tag("site", remote->display) + Tag("email", identity)));
  }
  if (video) {
    const std::string owner = remote->extra ? CleanName(p.owner) : identity;
    Emit(kVideo, StreamEvent("video_site_changed", remote->video_id,
                             Tag("email", owner) + Tag("site", remote->display) +
                                 Tag("name", p.label.empty() ? "Camera" : CleanName(p.label)) +
                                 Tag("codecName", CleanName(p.profile)) + Tag("local", "false") +
                                 Tag("active", "true") + Tag("layout", p.layout) +
                                 Tag("width", p.width) + Tag("height", p.height)));
  }
  Remote* r = remote.get();
  remotes_[feed] = std::move(remote);
  std::string error;
  if (!Subscribe(r, &error)) Trace(kVideo, 2, "could not receive " + feed + ": " + error);
}

bool Core::Subscribe(Remote* remote, std::string* error) {
  remote->handle = janus_.Attach(error);
  if (remote->handle == 0) return false;
  Json reply;
  if (!janus_.Message(remote->handle,
                      SubscriberJoinRequest(target_.room, remote->feed, private_id_), "", &reply,
                      error)) {
    return false;
  }
  JsonObject* jsep = ObjectMember(reply.object(), "jsep");
  if (!jsep) return Fail(error, "the video room sent no offer");
  PeerEvents events;
  const uint64_t handle = remote->handle;
  events.candidate = [this, handle](unsigned mline, const std::string& candidate) {
    worker_.Post([=] { SendCandidate(handle, mline, candidate); });
  };
  const std::string audio_id = remote->audio_id;
  const uint64_t generation = this->generation();
  events.level = [this, audio_id, generation](double db) {
    const int amplitude = Amplitude(db);
    bool muted;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      levels_[audio_id] = amplitude;
      const auto stated = muted_.find(audio_id);  // as its sender states it (core_presence.cpp)
      muted = stated != muted_.end() && stated->second;
    }
    Emit(kAudio,
         "<event name=\"amplitude\"><stream id=\"" + Escape(audio_id) + "\" muted=\"" +
             (muted ? "true" : "false") + "\">" + Tag("amplitude", amplitude) + "</stream></event>",
         generation);
  };
  const std::string video_id = remote->video_id;
  events.video_started = [this, video_id] { Trace(kVideo, 3, "first frame of " + video_id); };
  remote->peer.reset(new Subscriber(local_ip_, server_ip_, std::move(events)));
  std::string speaker;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    speaker = speaker_on_ ? speaker_ : "";
  }
  if (!remote->peer->Start(speaker, error)) return false;
  ApplyPlayback();
  if (!remote->peer->SetRemote("offer", StringMember(jsep, "sdp"), error)) return false;
  const std::string answer = remote->peer->CreateAnswer(error);
  if (answer.empty()) return false;
  return janus_.Message(remote->handle,
                        "{\"request\":\"start\",\"room\":" + Quote(target_.room) + "}",
                        "{\"type\":\"answer\",\"sdp\":" + Quote(answer) + "}", &reply, error);
}

void Core::RemoveRemote(const std::string& feed) {
  auto it = remotes_.find(feed);
  if (it == remotes_.end()) return;
  std::unique_ptr<Remote> remote = std::move(it->second);
  remotes_.erase(it);
  const uint64_t generation = this->generation();
  const std::string audio_event = StreamEvent("audio_stream_removed", remote->audio_id, "");
  uint64_t seq = 0;
  if (!remote->video_id.empty()) {
    seq = Emit(kVideo, StreamEvent("video_stream_removed", remote->video_id, ""), generation);
  }
  if (remote->extra) {
    // A further stream leaves alone: its owner stays.
  } else if (seq == 0) {
    Emit(kAudio, audio_event, generation);
  } else {
    // The participant's audio leaves after its video has been delivered (the product drops the
    // whole participant on the audio event).
    std::thread([this, seq, generation, audio_event] {
      queues_[kVideo].WaitFor(seq);
      Emit(kAudio, audio_event, generation);
    }).detach();
  }
  if (remote->peer) remote->peer->Stop();
  if (remote->slot) remote->slot->Stop();
  if (remote->handle) janus_.Detach(remote->handle);
  std::lock_guard<std::mutex> lock(mutex_);
  videos_.erase(remote->video_id);
  levels_.erase(remote->audio_id);
  muted_.erase(remote->audio_id);
}

Remote* Core::RemoteByVideoId(const std::string& video_id) const {
  for (const auto& entry : remotes_) {
    if (entry.second->video_id == video_id) return entry.second.get();
  }
  return nullptr;
}

int Core::FrameReady(const std::string& id) {
  std::shared_ptr<FrameSlot> slot;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = videos_.find(id);
    if (it == videos_.end()) return 0;
    slot = it->second;
  }
  return slot->Take();
}
}  // namespace ktopen
