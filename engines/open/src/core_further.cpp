// The open core's further streams: a shared screen and network video. Each is a publisher of its
// own in the room (StreamPublisher), joined under an id derived from ours and stating us as its
// owner (presence.h), so that the others announce it as a further stream of ours. Locally it is
// announced as a stream of the local participant. The commands run on the product's threads; the
// publishers' joining, negotiation and leaving on the worker thread.
#include "core_private.h"

namespace ktopen {

bool Core::ScreenCommand(const Node& d, const Screen& screen, bool apply, std::string* error) {
  const std::string& id = screen.id;
  if (d.children.empty()) return Fail(error, "Nothing to change for device '" + id + "'");
  bool has_enable = false, on = false;
  const std::string* profile = nullptr;
  for (const auto& setting : d.children) {
    if (setting->name == "enable") {
      if (!ReadFlag(*setting, &on, error)) return false;
      has_enable = true;
    } else if (setting->name == "profile") {
      profile = &setting->text;
      if (*profile != kScreenProfile) {
        return Fail(error, "Unsupported profile '" + *profile + "' for video device '" + id + "'");
      }
    } else if (setting->name != "site" && setting->name != "name") {
      return Fail(error, "Unsupported element <" + setting->name + "> in device '" + id + "'");
    }
  }
  if (!has_enable) return Fail(error, "Missing <enable> for video device '" + id + "'");
  if (on && profile == nullptr) {
    return Fail(error, "Missing <profile> for video device '" + id + "'");
  }
  if (!apply) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (on && !joined_) return Fail(error, "A screen can be shared only in a meeting");
    return true;
  }
  if (!on) {
    DisableFurther(id);
    return true;
  }
  FurtherStream stream;
  stream.key = id;
  stream.label = screen.name;
  stream.profile = *profile;
  stream.width = screen.width;
  stream.height = screen.height;
  stream.fps = kScreenFps;
  stream.screen = screen;
  return EnableFurther(stream, screen.name, error);
}

bool Core::NetworkVideoCommand(const Node& node, bool apply, std::string* error) {
  const std::string* url = TextOf(node, "url");
  const std::string* command = TextOf(node, "command");
  if (url == nullptr || url->empty()) return Fail(error, "Missing <url> in <local_url>");
  if (command == nullptr) return Fail(error, "Missing <command> in <local_url>");
  if (*command == "playback_stop") {
    std::lock_guard<std::mutex> lock(mutex_);
    if (further_ids_.count(*url) == 0) {
      return Fail(error, "No network video playing from '" + *url + "'");
    }
  } else if (*command != "playback_start") {
    return Fail(error, "Unsupported local_url command '" + *command + "'");
  }
  if (*command == "playback_stop") {
    if (apply) DisableFurther(*url);
    return true;
  }
  const std::string* profile = TextOf(node, "profile");
  if (profile == nullptr || profile->empty()) {
    return Fail(error, "Missing <profile> in <local_url>");
  }
  VideoSource source;
  if (!apply) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!joined_) return Fail(error, "Network video can be published only in a meeting");
    }
    // Read once here, where a refusal can still be given; the applying pass takes the result.
    if (!ProbeVideoSource(*url, &source, error)) return false;
    std::lock_guard<std::mutex> lock(mutex_);
    probed_[*url] = source;
    return true;
  }
  bool probed = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = probed_.find(*url);
    if (it != probed_.end()) {
      source = it->second;
      probed_.erase(it);
      probed = true;
    }
  }
  if (!probed && !ProbeVideoSource(*url, &source, error)) return false;
  const std::string* name = TextOf(node, "name");
  FurtherStream stream;
  stream.key = *url;
  stream.label = name ? *name : "";
  stream.profile = *profile;
  NetworkVideoSentSize(source.width, source.height, &stream.width, &stream.height);
  stream.fps = 15;
  stream.network = source;
  DisableFurther(*url);  // a source started again replaces the running one
  return EnableFurther(stream, stream.label, error);
}

bool Core::EnableFurther(const FurtherStream& wanted, const std::string& device_name,
                         std::string* error) {
  FurtherStream stream = wanted;
  std::string announce;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!joined_) return Fail(error, "Not in a meeting");
    if (further_ids_.count(stream.key)) return true;  // already sent
    const int n = ++further_count_;
    const bool screen = stream.network.uri.empty();
    const std::string id =
        std::string("local/") + (screen ? "screen-" : "network-") + std::to_string(n);
    stream.feed = uuid_ + (screen ? "-screen-" : "-network-") + std::to_string(n);
    further_ids_[stream.key] = id;
    announce = StreamEvent("video_site_changed", id,
                           Tag("email", uuid_) + Tag("site", display_) + Tag("name", stream.label) +
                               Tag("device_name", device_name) + Tag("codecName", stream.profile) +
                               Tag("local", "true") + Tag("active", "true") +
                               Tag("layout", kScreenLayout) + Tag("width", stream.width) +
                               Tag("height", stream.height));
  }
  Emit(kVideo, announce);
  worker_.Post([this, stream] { StartFurther(stream); });
  return true;
}

void Core::DisableFurther(const std::string& key) {
  std::string removed;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = further_ids_.find(key);
    if (it == further_ids_.end()) return;
    removed = StreamEvent("video_stream_removed", it->second, "");
    further_ids_.erase(it);
  }
  Emit(kVideo, removed);
  worker_.Post([this, key] { StopFurther(key); });
}

void Core::StartFurther(const FurtherStream& stream) {
  if (!janus_.is_open() || pub_handle_ == 0 || furthers_.count(stream.key)) return;
  auto further = std::make_unique<Further>();
  further->key = stream.key;
  further->feed = stream.feed;
  std::string error;
  further->handle = janus_.Attach(&error);
  if (further->handle == 0) {
    Trace(kVideo, 2, "could not publish " + stream.key + ": " + error);
    return;
  }
  Presence stated;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stated.name = display_;
  }
  stated.owner = uuid_;
  stated.label = stream.label;
  stated.profile = stream.profile;
  stated.width = stream.width;
  stated.height = stream.height;
  stated.layout = kScreenLayout;
  Json reply;
  if (!janus_.Message(further->handle,
                      PublisherJoinRequest(target_.room, EncodePresence(stated), stream.feed), "",
                      &reply, &error)) {
    Trace(kVideo, 2, "could not publish " + stream.key + ": " + error);
    janus_.Detach(further->handle);
    return;
  }
  const std::string key = stream.key;
  PeerEvents events;
  events.negotiation_needed = [this, key] { worker_.Post([this, key] { NegotiateFurther(key); }); };
  events.candidate = [this, key](unsigned mline, const std::string& candidate) {
    worker_.Post([=] { FurtherCandidate(key, mline, candidate); });
  };
  further->peer.reset(new StreamPublisher(local_ip_, server_ip_, std::move(events)));
  const bool network = !stream.network.uri.empty();
  GstElement* source =
      network ? CreateNetworkVideoElement(stream.network) : CreateScreenElement(stream.screen);
  auto ended = [this, key] { Trace(kVideo, 3, "the video source " + key + " ended"); };
  if (!further->peer->Start(source, stream.width, stream.height, stream.fps,
                            network && !stream.network.live, ended, &error)) {
    Trace(kVideo, 2, "could not publish " + stream.key + ": " + error);
    further->peer->Stop();
    janus_.Detach(further->handle);
    return;
  }
  Trace(kVideo, 3, "publishing " + stream.key + " as " + stream.feed);
  furthers_[key] = std::move(further);
}

void Core::NegotiateFurther(const std::string& key) {
  auto it = furthers_.find(key);
  if (it == furthers_.end() || it->second->negotiated) return;
  Further& f = *it->second;
  f.negotiated = true;
  std::string error;
  const std::string offer = f.peer->CreateOffer(&error);
  if (offer.empty()) {
    Trace(kVideo, 2, error);
    return;
  }
  Json reply;
  if (!janus_.Message(f.handle, "{\"request\":\"publish\"}",
                      "{\"type\":\"offer\",\"sdp\":" + Quote(offer) + "}", &reply, &error)) {
    Trace(kVideo, 2, "publishing " + key + " refused: " + error);
    return;
  }
  f.offer_sent = true;
  for (const auto& c : f.pending_candidates) janus_.Trickle(f.handle, c.second, c.first);
  f.pending_candidates.clear();
  JsonObject* jsep = ObjectMember(reply.object(), "jsep");
  if (!jsep || !f.peer->SetRemote("answer", StringMember(jsep, "sdp"), &error)) {
    Trace(kVideo, 2, "publishing " + key + " failed: " + (error.empty() ? "no answer" : error));
  }
}

void Core::FurtherCandidate(const std::string& key, unsigned mline, const std::string& candidate) {
  auto it = furthers_.find(key);
  if (it == furthers_.end() || !janus_.is_open()) return;
  Further& f = *it->second;
  if (!f.offer_sent) {
    f.pending_candidates.emplace_back(mline, candidate);
    return;
  }
  janus_.Trickle(f.handle, candidate, static_cast<int>(mline));
}

void Core::StopFurther(const std::string& key) {
  auto it = furthers_.find(key);
  if (it == furthers_.end()) return;
  std::unique_ptr<Further> f = std::move(it->second);
  furthers_.erase(it);
  f->peer->Stop();
  if (janus_.is_open()) {
    Json reply;
    std::string error;
    janus_.Message(f->handle, "{\"request\":\"leave\"}", "", &reply, &error);
    janus_.Detach(f->handle);
  }
}

}  // namespace ktopen
