// The open core's publishing: the local microphone and camera sent to the room through one peer
// connection (the publisher), its offer and answer with Janus, and its ICE candidates. Runs on the
// worker thread; the publisher's callbacks come from GStreamer threads and only post or emit.
#include "core_private.h"

namespace ktopen {

// Publishes the microphone and camera (silence and black frames while they are off).
bool Core::StartPublishing(std::string* error) {
  std::string mic, camera, profile;
  int width = 640, height = 480, fps = 30;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    mic = mic_on_ ? mic_ : "";
    camera = camera_on_ ? camera_ : "";
    profile = profile_;
  }
  ProfileSize(profile, &width, &height, &fps);
  PeerEvents events;
  events.negotiation_needed = [this] { worker_.Post([this] { Negotiate(); }); };
  const uint64_t handle = pub_handle_;
  events.candidate = [this, handle](unsigned mline, const std::string& candidate) {
    worker_.Post([=] { SendCandidate(handle, mline, candidate); });
  };
  events.level = [this](double db) {
    bool on;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      on = mic_on_;
    }
    if (on) Emit(kAudio, "<event name=\"input_meter\">" + Tag("meter", Amplitude(db)) + "</event>");
  };
  negotiated_ = offer_sent_ = false;
  pending_candidates_.clear();
  publisher_.reset(new Publisher(local_ip_, server_ip_, std::move(events)));
  if (!publisher_->Start(mic, camera, width, height, fps, error)) return false;
  last_conditions_ = std::chrono::steady_clock::now();
  getrusage(RUSAGE_SELF, &last_usage_);
  conditions_.clear();
  return true;
}

void Core::Negotiate() {
  if (!publisher_ || negotiated_) return;
  negotiated_ = true;
  std::string error;
  Trace(kVideo, 4, "publishing: making an offer");
  const std::string offer = publisher_->CreateOffer(&error);
  if (offer.empty()) {
    Trace(kVideo, 2, error);
    return;
  }
  Json reply;
  if (!janus_.Message(pub_handle_, "{\"request\":\"publish\"}",
                      "{\"type\":\"offer\",\"sdp\":" + Quote(offer) + "}", &reply, &error)) {
    Trace(kVideo, 2, "publishing refused: " + error);
    return;
  }
  Trace(kVideo, 4, "publishing: offer accepted");
  offer_sent_ = true;
  for (const auto& c : pending_candidates_) janus_.Trickle(pub_handle_, c.second, c.first);
  pending_candidates_.clear();
  JsonObject* jsep = ObjectMember(reply.object(), "jsep");
  if (!jsep || !publisher_->SetRemote("answer", StringMember(jsep, "sdp"), &error)) {
    Trace(kVideo, 2, "publishing failed: " + (error.empty() ? "no answer" : error));
  }
  Trace(kVideo, 4, "publishing: answer set");
}

void Core::SendCandidate(uint64_t handle, unsigned mline, const std::string& candidate) {
  Trace(kVideo, 5, "local candidate " + candidate);
  if (!janus_.is_open()) return;
  if (handle == pub_handle_ && !offer_sent_) {
    pending_candidates_.emplace_back(mline, candidate);
    return;
  }
  janus_.Trickle(handle, candidate, static_cast<int>(mline));
}
}  // namespace ktopen
