// The open core's session and room: joining a Janus video room (Connect, on the product's thread,
// hands the join to the worker and waits for it), the room's events (publishers arriving and
// leaving, trickled candidates), and leaving (Disconnect, Exit). Join, Leave and OnJanusEvent run
// on the worker thread.
#include "core_private.h"
#include "test_camera.h"

namespace ktopen {

// ---- Joining and leaving -----------------------------------------------------------------------

bool Core::Connect(EngineId engine, const std::string& url, const std::string& display,
                   const std::string& uuid) {
  Target target;
  std::string error;
  if (!ParseTarget(url, engine == kAudio ? '4' : '6', Env("CONVOKE_JANUS_PORT"),
                   Env("CONVOKE_JANUS_PATH"), &target, &error)) {
    return Refuse(engine, error);
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (joined_) {
      if (target.host != target_.host || target.room != target_.room || uuid != uuid_) {
        errors_[engine] = "Already in meeting '" + target_.room + "' on " + target_.host;
        return false;
      }
      connected_[engine] = true;
      return true;
    }
  }
  if (!InitMedia(&error)) return Refuse(engine, error);
  worker_.Start([this] { Tick(); }, std::chrono::milliseconds(100));
  bool ok = false;
  const bool finished = worker_.Call(
      [&, target] {
        ok = Join(target, display, uuid, &error);
        if (!ok) Leave();
      },
      kJoinLimit);
  if (!finished) return Refuse(engine, "Joining the meeting took too long");
  if (!ok) return Refuse(engine, error);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    connected_[engine] = true;
    errors_[engine].clear();
  }
  Trace(engine, 3, "connected to " + target.base_url + " room " + target.room);
  return true;
}

bool Core::Join(const Target& target, const std::string& display, const std::string& uuid,
                std::string* error) {
  if (!ResolveAddresses(target.host, &server_ip_, &local_ip_, error)) return false;
  janus_.SetLog([this](const std::string& line) { Trace(kVideo, 2, line); });
  if (!janus_.Open(
          target.base_url,
          [this](const Json& event) { worker_.Post([this, event] { OnJanusEvent(event); }); },
          error)) {
    return false;
  }
  pub_handle_ = janus_.Attach(error);
  if (pub_handle_ == 0) return false;
  Json reply;
  std::string refusal;
  if (!janus_.Message(pub_handle_, CreateRoomRequest(target.room), "", &reply, &refusal)) {
    JsonObject* data = ObjectMember(ObjectMember(reply.object(), "plugindata"), "data");
    if (IntMember(data, "error_code") != 427) {  // 427: the room exists already
      *error = refusal;
      return false;
    }
  }
  std::string stated;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    display_ = display;
    stated = EncodePresence(LocalPresenceLocked());
  }
  if (!janus_.Message(pub_handle_, PublisherJoinRequest(target.room, stated, uuid), "", &reply,
                      error)) {
    return false;
  }
  JsonObject* data = ObjectMember(ObjectMember(reply.object(), "plugindata"), "data");
  if (StringMember(data, "videoroom") != "joined") {
    *error = "The video room did not let us join";
    return false;
  }
  my_id_ = StringMember(data, "id");
  SetPictureIdentity(my_id_);
  private_id_ = StringMember(data, "private_id");
  {
    std::lock_guard<std::mutex> lock(mutex_);
    joined_ = true;
    target_ = target;
    uuid_ = uuid;
  }
  {
    std::lock_guard<std::mutex> lock(emit_mutex_);
    in_meeting_ = true;
    ++generation_;
  }

  if (!StartPublishing(error)) return false;
  device_watch_.Start();
  for (const RoomPublisher& publisher : AnnouncedPublishers(data)) AddRemote(publisher);
  WatchServer();
  return true;
}

void Core::OnJanusEvent(const Json& event) {
  JsonObject* root = event.object();
  const std::string kind = StringMember(root, "janus");
  const uint64_t sender = static_cast<uint64_t>(IntMember(root, "sender"));
  if (kind == "event" && sender == pub_handle_) {
    JsonObject* data = ObjectMember(ObjectMember(root, "plugindata"), "data");
    for (const RoomPublisher& publisher : AnnouncedPublishers(data)) AddRemote(publisher);
    const std::string departed = DepartedPublisher(data);
    if (!departed.empty()) RemoveRemote(departed);
    // A publisher's new display name carries its new state (presence.h).
    if (data && StringMember(data, "videoroom") == "event" &&
        json_object_has_member(data, "display")) {
      OnPresence(StringMember(data, "id"), StringMember(data, "display"));
    }
  } else if (kind == "trickle") {
    JsonObject* candidate = ObjectMember(root, "candidate");
    const std::string text = StringMember(candidate, "candidate");
    if (text.empty()) return;
    for (auto& entry : remotes_) {
      if (entry.second->handle == sender && entry.second->peer) {
        entry.second->peer->AddRemoteCandidate(
            static_cast<unsigned>(IntMember(candidate, "sdpMLineIndex")), text);
      }
    }
  } else if (kind == "timeout") {
    Trace(kVideo, 2, "the meeting server dropped the session");
  }
}

void Core::Leave() {
  watch_.reset();
  server_lost_ = false;
  lost_session_ = 0;
  for (auto& entry : remotes_) {
    if (entry.second->peer) entry.second->peer->Stop();
    if (entry.second->slot) entry.second->slot->Stop();
  }
  device_watch_.Stop();
  if (publisher_) publisher_->Stop();
  for (auto& entry : furthers_) entry.second->peer->Stop();
  janus_.Close();  // Janus tells the others that we left
  remotes_.clear();
  furthers_.clear();
  publisher_.reset();
  pub_handle_ = 0;
  my_id_.clear();
  private_id_.clear();
  std::lock_guard<std::mutex> lock(mutex_);
  joined_ = false;
  connected_[kAudio] = connected_[kVideo] = false;
  videos_.clear();
  levels_.clear();
  muted_.clear();
  self_view_->Stop();
  local_video_id_.clear();
  further_ids_.clear();
  probed_.clear();
}

void Core::Disconnect(EngineId engine) {
  bool joined;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    connected_[engine] = false;
    joined = joined_;
  }
  if (joined) {
    {
      std::lock_guard<std::mutex> lock(emit_mutex_);
      in_meeting_ = false;
      ++generation_;
    }
    worker_.Call([this] { Leave(); }, kLeaveLimit);
    Trace(engine, 3, "disconnected");
  }
  for (EventQueue& q : queues_) {
    q.Discard(0, !q.OnWorkerThread());
    q.StopWhenIdle();
  }
}

void Core::Exit() {
  bool joined;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    joined = joined_;
  }
  {
    std::lock_guard<std::mutex> lock(emit_mutex_);
    in_meeting_ = false;
    ++generation_;
  }
  for (EventQueue& q : queues_) q.Exit(std::chrono::milliseconds(500));
  if (!joined || worker_.Call([this] { Leave(); }, std::chrono::seconds(3))) worker_.Stop();
}
}  // namespace ktopen
