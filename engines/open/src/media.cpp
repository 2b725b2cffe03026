#include "media.h"

#include <gst/app/gstappsink.h>
#include <gst/sdp/sdp.h>
#include <gst/video/video.h>
#define GST_USE_UNSTABLE_API
#include <gst/webrtc/webrtc.h>
#include <nice/agent.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <sstream>

#include "devices.h"
#include "recovery.h"

namespace ktopen {

namespace {

constexpr guint kAudioSsrc = 0x4b540001;
constexpr guint kVideoSsrc = 0x4b540002;
constexpr int kMaxSide = 4096;

// A promise-based webrtcbin action, waited for on the calling thread.
GstStructure* Await(GstElement* webrtc, const char* signal, GstWebRTCSessionDescription* desc) {
  GstPromise* promise = gst_promise_new();
  if (desc) {
    g_signal_emit_by_name(webrtc, signal, desc, promise);
  } else {
    g_signal_emit_by_name(webrtc, signal, nullptr, promise);
  }
  GstPromiseResult result = gst_promise_wait(promise);
  GstStructure* reply = nullptr;
  if (result == GST_PROMISE_RESULT_REPLIED && gst_promise_get_reply(promise)) {
    reply = gst_structure_copy(gst_promise_get_reply(promise));
  }
  gst_promise_unref(promise);
  return reply;
}

std::string CandidateAddress(const std::string& candidate) {
  // candidate:<foundation> <component> <transport> <priority> <address> <port> typ <type> ...
  std::istringstream in(candidate);
  std::string field, address;
  for (int i = 0; i < 5 && in >> field; ++i) address = field;
  return address;
}

}  // namespace

bool InitMedia(std::string* error) {
  static std::once_flag once;
  static std::string failure;
  std::call_once(once, [] {
    GError* problem = nullptr;
    if (!gst_init_check(nullptr, nullptr, &problem)) {
      failure = std::string("GStreamer did not start: ") + (problem ? problem->message : "");
      if (problem) g_error_free(problem);
      return;
    }
    for (const char* name :
         {"webrtcbin", "nicesrc", "opusenc", "opusdec", "vp8enc", "vp8dec", "rtpopuspay",
          "rtpvp8pay", "videotestsrc", "audiotestsrc", "level", "appsink", "valve"}) {
      GstElementFactory* factory = gst_element_factory_find(name);
      if (!factory) {
        failure = std::string("GStreamer element '") + name + "' is missing";
        return;
      }
      gst_object_unref(factory);
    }
  });
  if (!failure.empty() && error) *error = failure;
  return failure.empty();
}

// ---- Peer --------------------------------------------------------------------------------------

Peer::Peer(const std::string& local_ip, const std::string& server_ip, PeerEvents events)
    : local_ip_(local_ip), server_ip_(server_ip), events_(std::move(events)) {}

Peer::~Peer() {
  Stop();
  if (pipeline_) gst_object_unref(pipeline_);
}

bool Peer::Setup(std::string* error) {
  pipeline_ = gst_pipeline_new(nullptr);
  webrtc_ = gst_element_factory_make("webrtcbin", nullptr);
  if (!pipeline_ || !webrtc_) {
    if (error) *error = "Could not create a WebRTC pipeline";
    return false;
  }
  gst_bin_add(GST_BIN(pipeline_), webrtc_);
  gst_util_set_object_arg(G_OBJECT(webrtc_), "bundle-policy", "max-bundle");
  g_object_set(webrtc_, "latency", 100, nullptr);
  EnableRetransmission(webrtc_);

  // Keep ICE to the interface that reaches the meeting server: no UPnP (it multicasts), no TCP.
  GstWebRTCICE* ice = nullptr;
  g_object_get(webrtc_, "ice-agent", &ice, nullptr);
  if (ice) {
    if (g_object_class_find_property(G_OBJECT_GET_CLASS(ice), "agent")) {
      NiceAgent* agent = nullptr;
      g_object_get(ice, "agent", &agent, nullptr);
      if (agent) {
        // Adding the local address to the agent here hangs the first offer (webrtcbin 1.22):
        // the candidates are filtered by address instead (OnIceCandidate).
        g_object_set(agent, "upnp", FALSE, nullptr);
        g_object_unref(agent);
      }
    }
    if (g_object_class_find_property(G_OBJECT_GET_CLASS(ice), "ice-tcp")) {
      g_object_set(ice, "ice-tcp", FALSE, nullptr);
    }
    gst_object_unref(ice);
  }
  g_signal_connect(webrtc_, "on-negotiation-needed", G_CALLBACK(&Peer::OnNegotiationNeeded), this);
  g_signal_connect(webrtc_, "on-ice-candidate", G_CALLBACK(&Peer::OnIceCandidate), this);
  g_signal_connect(webrtc_, "notify::ice-gathering-state", G_CALLBACK(&Peer::OnGatheringState),
                   this);
  GstBus* bus = gst_element_get_bus(pipeline_);
  gst_bus_set_sync_handler(bus, &Peer::OnBusMessage, this, nullptr);
  gst_object_unref(bus);
  return true;
}

bool Peer::Play(std::string* error) {
  if (gst_element_set_state(pipeline_, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    if (error) *error = "The media pipeline did not start";
    return false;
  }
  return true;
}

void Peer::Stop() {
  if (stopped_.exchange(true) || !pipeline_) return;
  gst_element_set_state(pipeline_, GST_STATE_NULL);
}

void Peer::OnNegotiationNeeded(GstElement*, gpointer self) {
  Peer* peer = static_cast<Peer*>(self);
  if (!peer->stopped_ && peer->events_.negotiation_needed) peer->events_.negotiation_needed();
}

void Peer::OnIceCandidate(GstElement*, guint mline, gchar* candidate, gpointer self) {
  Peer* peer = static_cast<Peer*>(self);
  if (peer->stopped_ || !peer->events_.candidate || !candidate) return;
  // Only candidates on the address that reaches the server, over UDP.
  const std::string text = candidate;
  if (text.find(" UDP ") == std::string::npos && text.find(" udp ") == std::string::npos) return;
  if (!peer->local_ip_.empty() && CandidateAddress(text) != peer->local_ip_) return;
  peer->events_.candidate(mline, text);
}

void Peer::OnGatheringState(GstElement* webrtc, GParamSpec*, gpointer self) {
  Peer* peer = static_cast<Peer*>(self);
  GstWebRTCICEGatheringState state;
  g_object_get(webrtc, "ice-gathering-state", &state, nullptr);
  if (state == GST_WEBRTC_ICE_GATHERING_STATE_COMPLETE && !peer->stopped_ &&
      peer->events_.candidate) {
    peer->events_.candidate(0, "");
  }
}

GstBusSyncReply Peer::OnBusMessage(GstBus*, GstMessage* message, gpointer self) {
  Peer* peer = static_cast<Peer*>(self);
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ELEMENT && !peer->stopped_ && peer->events_.level) {
    const GstStructure* s = gst_message_get_structure(message);
    if (s && gst_structure_has_name(s, "level")) {
      const GValue* rms = gst_structure_get_value(s, "rms");
      double loudest = -200;
      // The level element still posts a GValueArray per channel.
      G_GNUC_BEGIN_IGNORE_DEPRECATIONS
      if (rms && G_VALUE_TYPE(rms) == g_value_array_get_type()) {
        GValueArray* channels = static_cast<GValueArray*>(g_value_get_boxed(rms));
        for (guint i = 0; channels && i < channels->n_values; ++i) {
          loudest = std::max(loudest, g_value_get_double(g_value_array_get_nth(channels, i)));
        }
      } else if (rms && GST_VALUE_HOLDS_LIST(rms)) {
        for (guint i = 0; i < gst_value_list_get_size(rms); ++i) {
          loudest = std::max(loudest, g_value_get_double(gst_value_list_get_value(rms, i)));
        }
      }
      G_GNUC_END_IGNORE_DEPRECATIONS
      peer->events_.level(loudest);
    }
  } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    GError* problem = nullptr;
    gst_message_parse_error(message, &problem, nullptr);
    g_printerr("open engine: %s: %s\n", GST_OBJECT_NAME(GST_MESSAGE_SRC(message)),
               problem ? problem->message : "error");
    if (problem) g_error_free(problem);
  }
  // Nobody watches the bus, so nothing may pile up on it: every message is dropped here, and a
  // sync handler that drops a message owns it. Each message holds its source element, so one left
  // unreleased kept the whole pipeline alive (its threads and buffers) after the peer was gone.
  gst_message_unref(message);
  return GST_BUS_DROP;
}

bool Peer::OnServerAddress(const std::string& candidate) const {
  const std::string text = candidate.compare(0, 2, "a=") == 0 ? candidate.substr(2) : candidate;
  return server_ip_.empty() || CandidateAddress(text) == server_ip_;
}

std::string Peer::KeepServerCandidates(const std::string& sdp) const {
  std::istringstream in(sdp);
  std::string line, out;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.compare(0, 12, "a=candidate:") == 0 && !OnServerAddress(line)) continue;
    out += line + "\r\n";
  }
  return out;
}

std::string Peer::CreateOffer(std::string* error) {
  return CreateDescription("create-offer", "offer", "Could not make a WebRTC offer", error);
}

std::string Peer::CreateAnswer(std::string* error) {
  // Only receiving peers answer (the server offers each subscription).
  return AnnounceReceiverSsrc(webrtc_, CreateDescription("create-answer", "answer",
                                                         "Could not make a WebRTC answer", error));
}

namespace {

// An answer takes the passive DTLS role: the server starts the handshake once its side of ICE is
// up. Taking the active role, our first handshake packet went out with our own ICE check and was
// lost one time in three or four, and the handshake waited a second for the retransmission.
GstWebRTCSessionDescription* TakePassiveDtlsRole(GstWebRTCSessionDescription* answer) {
  gchar* text = gst_sdp_message_as_text(answer->sdp);
  std::string sdp = text ? text : "";
  g_free(text);
  bool changed = false;
  for (size_t at = sdp.find("a=setup:active"); at != std::string::npos;
       at = sdp.find("a=setup:active", at)) {
    sdp.replace(at, 14, "a=setup:passive");
    changed = true;
  }
  GstSDPMessage* message = nullptr;
  if (!changed || gst_sdp_message_new(&message) != GST_SDP_OK) return answer;
  if (gst_sdp_message_parse_buffer(reinterpret_cast<const guint8*>(sdp.data()),
                                   static_cast<guint>(sdp.size()), message) != GST_SDP_OK) {
    gst_sdp_message_free(message);
    return answer;
  }
  gst_webrtc_session_description_free(answer);
  return gst_webrtc_session_description_new(GST_WEBRTC_SDP_TYPE_ANSWER, message);
}

}  // namespace

std::string Peer::CreateDescription(const char* signal, const char* field, const char* failure,
                                    std::string* error) {
  GstStructure* reply = Await(webrtc_, signal, nullptr);
  GstWebRTCSessionDescription* description = nullptr;
  if (reply) {
    gst_structure_get(reply, field, GST_TYPE_WEBRTC_SESSION_DESCRIPTION, &description, nullptr);
    gst_structure_free(reply);
  }
  if (!description) {
    if (error) *error = failure;
    return "";
  }
  if (description->type == GST_WEBRTC_SDP_TYPE_ANSWER)
    description = TakePassiveDtlsRole(description);
  GstStructure* set = Await(webrtc_, "set-local-description", description);
  if (set) gst_structure_free(set);
  gchar* text = gst_sdp_message_as_text(description->sdp);
  std::string sdp = text ? text : "";
  g_free(text);
  gst_webrtc_session_description_free(description);
  return sdp;
}

bool Peer::SetRemote(const std::string& type, const std::string& sdp, std::string* error) {
  GstSDPMessage* message = nullptr;
  gst_sdp_message_new(&message);
  const std::string kept = KeepServerCandidates(sdp);
  if (gst_sdp_message_parse_buffer(reinterpret_cast<const guint8*>(kept.data()),
                                   static_cast<guint>(kept.size()), message) != GST_SDP_OK) {
    gst_sdp_message_free(message);
    if (error) *error = "The meeting server sent an unreadable session description";
    return false;
  }
  GstWebRTCSessionDescription* desc = gst_webrtc_session_description_new(
      type == "offer" ? GST_WEBRTC_SDP_TYPE_OFFER : GST_WEBRTC_SDP_TYPE_ANSWER, message);
  GstStructure* reply = Await(webrtc_, "set-remote-description", desc);
  bool ok = true;
  if (reply && gst_structure_has_field(reply, "error")) {
    ok = false;
    if (error) *error = "The meeting server's session description was refused";
  }
  if (reply) gst_structure_free(reply);
  gst_webrtc_session_description_free(desc);
  return ok;
}

void Peer::AddRemoteCandidate(unsigned mline, const std::string& candidate) {
  if (stopped_ || !OnServerAddress(candidate)) return;
  g_signal_emit_by_name(webrtc_, "add-ice-candidate", mline, candidate.c_str());
}

// Statistics are asked for without waiting (a waiting get-stats can stall the caller): each call
// returns the figures of the previous request and starts the next one.
PeerStats Peer::Stats() {
  if (stopped_) return PeerStats();
  // The reply lands in the box, not in the peer: the box lives as long as the request does.
  GstPromise* promise = gst_promise_new_with_change_func(
      [](GstPromise* done, gpointer data) {
        // An interrupted or expired request (the pipeline went away) leaves the figures alone.
        if (gst_promise_wait(done) != GST_PROMISE_RESULT_REPLIED) return;
        const GstStructure* reply = gst_promise_get_reply(done);
        if (!reply) return;
        const PeerStats stats = ParseStats(reply);
        StatsBox& box = **static_cast<std::shared_ptr<StatsBox>*>(data);
        std::lock_guard<std::mutex> lock(box.mutex);
        box.stats = stats;
      },
      new std::shared_ptr<StatsBox>(stats_),
      [](gpointer data) { delete static_cast<std::shared_ptr<StatsBox>*>(data); });
  g_signal_emit_by_name(webrtc_, "get-stats", nullptr, promise);
  gst_promise_unref(promise);
  std::lock_guard<std::mutex> lock(stats_->mutex);
  return stats_->stats;
}

PeerStats ParseStats(const GstStructure* reply) {
  PeerStats stats;
  const gint n = gst_structure_n_fields(reply);
  // webrtcbin 1.22 gives every stream of a bundled transport the same kind and codec; the RTP
  // source's own clock rate tells video (90 kHz) from audio, and what we send carries our SSRCs.
  const auto is_video = [](const GstStructure* s) {
    guint ssrc = 0;
    if (gst_structure_get_uint(s, "ssrc", &ssrc) && ssrc == kVideoSsrc) return true;
    const GValue* source = gst_structure_get_value(s, "gst-rtpsource-stats");
    gint clock_rate = 0;
    return source && GST_VALUE_HOLDS_STRUCTURE(source) &&
           gst_structure_get_int(gst_value_get_structure(source), "clock-rate", &clock_rate) &&
           clock_rate == 90000;
  };
  for (gint i = 0; i < n; ++i) {
    const GValue* value = gst_structure_get_value(reply, gst_structure_nth_field_name(reply, i));
    if (!GST_VALUE_HOLDS_STRUCTURE(value)) continue;
    const GstStructure* s = gst_value_get_structure(value);
    GstWebRTCStatsType type;
    if (!gst_structure_get(s, "type", GST_TYPE_WEBRTC_STATS_TYPE, &type, nullptr)) continue;
    guint64 u = 0;
    gint64 l = 0;
    gdouble d = 0;
    if (type == GST_WEBRTC_STATS_OUTBOUND_RTP) {
      if (gst_structure_get_uint64(s, "bytes-sent", &u)) {
        stats.bytes_sent += u;
        if (is_video(s)) stats.video_bytes_sent += u;
      }
    } else if (type == GST_WEBRTC_STATS_INBOUND_RTP) {
      if (gst_structure_get_uint64(s, "bytes-received", &u)) {
        stats.bytes_received += u;
        if (is_video(s)) stats.video_bytes_received += u;
      }
      if (gst_structure_get_uint64(s, "packets-received", &u)) stats.packets_received += u;
      if (gst_structure_get_int64(s, "packets-lost", &l)) stats.packets_lost += l;
      if (gst_structure_get_double(s, "jitter", &d)) stats.jitter_s = std::max(stats.jitter_s, d);
    } else if (type == GST_WEBRTC_STATS_REMOTE_INBOUND_RTP) {
      if (gst_structure_get_double(s, "fraction-lost", &d)) {
        stats.fraction_lost = std::max(stats.fraction_lost, d);
      }
      if (gst_structure_get_double(s, "round-trip-time", &d)) {
        stats.round_trip_s = std::max(stats.round_trip_s, d);
      }
    }
  }
  return stats;
}

// ---- Publisher ---------------------------------------------------------------------------------

bool Publisher::Start(const std::string& microphone, const std::string& camera, int width,
                      int height, int fps, std::string* error) {
  if (!Setup(error)) return false;
  // Every hand-off between threads costs a wake-up, which is dear on small machines: the sources'
  // threads encode and send, and only the camera has a queue, which drops pictures rather than
  // let a slow encoder hold the camera up. Opus at low complexity is plenty for speech at 32 kbps;
  // its in-band FEC lets the receiver rebuild a lost packet from the next one. Macroblocks that did
  // not change at all are skipped (static-threshold), so a still picture costs little to encode.
  char description[2048];
  std::snprintf(description, sizeof description,
                "audioconvert name=audio_in ! audioresample ! "
                "audio/x-raw,rate=48000,channels=1 ! volume name=micvol ! "
                "level name=miclevel interval=100000000 post-messages=true ! "
                "opusenc bitrate=32000 complexity=1 inband-fec=true packet-loss-percentage=10 ! "
                "rtpopuspay pt=111 ! "
                "application/x-rtp,media=audio,encoding-name=OPUS,payload=111,clock-rate=48000,"
                "ssrc=(uint)%u ! webrtc_a. "
                "videorate name=video_in ! queue leaky=downstream max-size-buffers=2 "
                "max-size-bytes=0 max-size-time=0 ! videoconvert ! videoscale ! "
                "capsfilter name=camcaps caps=video/x-raw,width=%d,height=%d,framerate=%d/1 ! "
                "tee name=camtee ! videoflip name=rotate method=none ! "
                "%s ! rtpvp8pay pt=96 ! "
                "application/x-rtp,media=video,encoding-name=VP8,payload=96,clock-rate=90000,"
                "ssrc=(uint)%u ! webrtc_v.",
                kAudioSsrc, width, height, fps, kCameraEncoder, kVideoSsrc);
  // The two chains end in webrtcbin's request pads, linked by hand below.
  // The self view: converted only while rendered, on the camera queue's thread.
  std::string chains = std::string(description) +
                       " camtee. ! valve name=selfgate drop=true ! videoconvert ! videoscale ! "
                       "capsfilter name=selfsize ! appsink name=self max-buffers=1 drop=true "
                       "sync=false async=false";
  chains.replace(chains.find("webrtc_a."), 9, "identity name=to_webrtc_a");
  chains.replace(chains.find("webrtc_v."), 9, "identity name=to_webrtc_v");
  GError* problem = nullptr;
  GstElement* bin = gst_parse_bin_from_description(chains.c_str(), FALSE, &problem);
  if (!bin) {
    if (error) *error = std::string("Could not build the sending pipeline: ") + problem->message;
    g_error_free(problem);
    return false;
  }
  // Flatten: move the parsed elements into the pipeline so that names resolve there.
  gst_bin_add(GST_BIN(pipeline_), bin);
  for (const char* end : {"to_webrtc_a", "to_webrtc_v"}) {
    GstElement* last = gst_bin_get_by_name(GST_BIN(bin), end);
    GstPad* src = gst_element_get_static_pad(last, "src");
    GstPad* ghost = gst_ghost_pad_new(end, src);
    gst_element_add_pad(bin, ghost);
    if (std::strcmp(end, "to_webrtc_v") == 0) {  // counts the packets sent, for WatchRequests
      gst_pad_add_probe(
          src,
          static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST),
          &Publisher::OnVideoPackets, this, nullptr);
    }
    GstPad* sink = gst_element_request_pad_simple(webrtc_, "sink_%u");
    gst_pad_link(ghost, sink);
    gst_object_unref(sink);
    gst_object_unref(src);
    gst_object_unref(last);
  }
  for (const char* start : {"audio_in", "video_in"}) {
    GstElement* first = gst_bin_get_by_name(GST_BIN(bin), start);
    GstPad* sink = gst_element_get_static_pad(first, "sink");
    gst_element_add_pad(bin, gst_ghost_pad_new(start, sink));
    gst_object_unref(sink);
    gst_object_unref(first);
  }
  if (GstElement* self = gst_bin_get_by_name(GST_BIN(bin), "self")) {
    g_object_set(self, "emit-signals", TRUE, nullptr);
    g_signal_connect(self, "new-sample", G_CALLBACK(&Publisher::OnSelfSample), this);
    gst_object_unref(self);
  }
  GstElement* self_gate = gst_bin_get_by_name(GST_BIN(bin), "selfgate");
  GstElement* self_size = gst_bin_get_by_name(GST_BIN(bin), "selfsize");
  self_.Attach(self_gate, self_size);
  if (self_gate) gst_object_unref(self_gate);
  if (self_size) gst_object_unref(self_size);
  audio_source_ = CreateDeviceElement(Device::kMicrophone, microphone, microphone.empty());
  video_source_ = CreateDeviceElement(Device::kCamera, camera, camera.empty());
  if (!audio_source_ || !video_source_) {
    if (error) *error = "Could not open the microphone or the camera";
    return false;
  }
  microphone_ = microphone;
  camera_ = camera;
  gst_bin_add_many(GST_BIN(pipeline_), audio_source_, video_source_, nullptr);
  if (!gst_element_link_pads(audio_source_, nullptr, bin, "audio_in") ||
      !gst_element_link_pads(video_source_, nullptr, bin, "video_in")) {
    if (error) *error = "Could not link the microphone or the camera";
    return false;
  }
  return Play(error);
}

guint Publisher::video_ssrc() { return kVideoSsrc; }

GstPadProbeReturn Publisher::OnVideoPackets(GstPad*, GstPadProbeInfo* info, gpointer self) {
  const guint packets = (info->type & GST_PAD_PROBE_TYPE_BUFFER_LIST)
                            ? gst_buffer_list_length(GST_PAD_PROBE_INFO_BUFFER_LIST(info))
                            : 1;
  static_cast<Publisher*>(self)->video_packets_ += packets;
  return GST_PAD_PROBE_OK;
}

void Publisher::Swap(GstElement** current, GstElement* replacement, const char* downstream) {
  GstElement* bin = nullptr;
  GstPad* old_src = gst_element_get_static_pad(*current, "src");
  GstPad* peer = old_src ? gst_pad_get_peer(old_src) : nullptr;
  if (peer) bin = GST_ELEMENT(gst_object_get_parent(GST_OBJECT(peer)));
  gst_element_set_state(*current, GST_STATE_NULL);
  if (peer) gst_pad_unlink(old_src, peer);
  gst_bin_remove(GST_BIN(pipeline_), *current);
  *current = replacement;
  gst_bin_add(GST_BIN(pipeline_), replacement);
  if (bin) gst_element_link_pads(replacement, nullptr, bin, downstream);
  gst_element_sync_state_with_parent(replacement);
  if (bin) gst_object_unref(bin);
  if (peer) gst_object_unref(peer);
  if (old_src) gst_object_unref(old_src);
}

void Publisher::SelectSource(Device::Kind kind, const std::string& wanted,
                             void (*toggle)(GstElement*, const std::string&),
                             const char* downstream, std::string* current, GstElement** source) {
  if (wanted == *current) return;
  const auto isGenerated = [kind](const std::string& id) {
    return id.empty() || IsVirtualSource(kind, id);
  };
  if (isGenerated(wanted) && isGenerated(*current)) {
    // The generated sources and "off" are the same element: no swap, which would wait for the
    // streaming thread while webrtcbin holds it until the connection is up.
    toggle(*source, wanted);
    *current = wanted;
    return;
  }
  GstElement* replacement = CreateDeviceElement(kind, wanted, wanted.empty());
  if (replacement) {
    Swap(source, replacement, downstream);
    *current = wanted;
  }
}

void Publisher::SetMicrophone(const std::string& id, bool enabled, int volume) {
  if (!pipeline_ || stopped_) return;
  const std::string wanted = enabled ? id : "";
  SelectSource(Device::kMicrophone, wanted, SwitchVirtualMicrophone, "audio_in", &microphone_,
               &audio_source_);
  GstElement* gain = gst_bin_get_by_name(GST_BIN(pipeline_), "micvol");
  if (gain) {
    g_object_set(gain, "volume", std::clamp(volume, 0, 100) / 100.0, "mute", !enabled, nullptr);
    gst_object_unref(gain);
  }
}

void Publisher::SetCamera(const std::string& id, bool enabled, int width, int height, int fps) {
  if (!pipeline_ || stopped_) return;
  const std::string wanted = enabled ? id : "";
  SelectSource(Device::kCamera, wanted, SwitchVirtualCamera, "video_in", &camera_, &video_source_);
  GstElement* caps = gst_bin_get_by_name(GST_BIN(pipeline_), "camcaps");
  if (caps) {
    GstCaps* wanted_caps =
        gst_caps_new_simple("video/x-raw", "width", G_TYPE_INT, width, "height", G_TYPE_INT, height,
                            "framerate", GST_TYPE_FRACTION, fps, 1, nullptr);
    GstCaps* current = nullptr;
    g_object_get(caps, "caps", &current, nullptr);
    // Setting the same caps again would still renegotiate the whole chain, source included.
    if (!current || !gst_caps_is_equal(current, wanted_caps)) {
      g_object_set(caps, "caps", wanted_caps, nullptr);
    }
    if (current) gst_caps_unref(current);
    gst_caps_unref(wanted_caps);
    gst_object_unref(caps);
  }
}

void Publisher::SetRotation(int degrees) {
  if (!pipeline_ || stopped_) return;
  GstElement* rotate = gst_bin_get_by_name(GST_BIN(pipeline_), "rotate");
  if (!rotate) return;
  const char* method = degrees == 90    ? "clockwise"
                       : degrees == 180 ? "rotate-180"
                       : degrees == 270 ? "counterclockwise"
                                        : "none";
  gst_util_set_object_arg(G_OBJECT(rotate), "method", method);
  gst_object_unref(rotate);
}

// ---- Frames ------------------------------------------------------------------------------------

namespace {

std::mutex pool_mutex;
std::deque<ktengine_frame*> pool;  // released descriptors; none is ever freed

ktengine_frame* AcquireFrame(int width, int height) {
  std::lock_guard<std::mutex> lock(pool_mutex);
  for (auto it = pool.begin(); it != pool.end(); ++it) {
    if ((*it)->max_width >= width && (*it)->max_height >= height) {
      ktengine_frame* frame = *it;
      pool.erase(it);
      return frame;
    }
  }
  auto* frame = new ktengine_frame();
  frame->magic = KTENGINE_FRAME_MAGIC;
  frame->max_width = width;
  frame->max_height = height;
  frame->capacity = static_cast<size_t>(width) * height * 4;
  frame->data = new unsigned char[frame->capacity]();
  return frame;
}

void ReleaseFrame(ktengine_frame* frame) {
  std::lock_guard<std::mutex> lock(pool_mutex);
  pool.push_back(frame);
}

int BytesPerPixel(ktengine_pixel_format format) { return format == KTENGINE_RGB888 ? 3 : 4; }

}  // namespace

GstVideoFormat VideoFormat(ktengine_pixel_format format) {
  return format == KTENGINE_RGB888     ? GST_VIDEO_FORMAT_RGB
         : format == KTENGINE_BGRA8888 ? GST_VIDEO_FORMAT_BGRA
                                       : GST_VIDEO_FORMAT_RGBA;
}

FrameSlot::~FrameSlot() {
  if (frame_) ReleaseFrame(frame_);
}

ktengine_frame* FrameSlot::Start(const std::string& stream_id, ktengine_pixel_format format,
                                 int width, int height) {
  width = std::clamp(width, 1, kMaxSide);
  height = std::clamp(height, 1, kMaxSide);
  std::lock_guard<std::mutex> write(write_mutex_);
  std::lock_guard<std::mutex> lock(mutex_);
  // Room for the picture turned on its side too (up to a side of 1280), so that a sender's
  // camera turned to portrait still fits at the same address.
  const int room_w = std::max(width, std::min(height, 1280));
  const int room_h = std::max(height, std::min(width, 1280));
  if (frame_ && (frame_->max_width < room_w || frame_->max_height < room_h)) {
    ReleaseFrame(frame_);
    frame_ = nullptr;
  }
  if (!frame_) frame_ = AcquireFrame(room_w, room_h);
  __atomic_add_fetch(&frame_->sequence, 1, __ATOMIC_ACQ_REL);
  frame_->format = format;
  frame_->bytes_per_pixel = BytesPerPixel(format);
  frame_->width = width;
  frame_->height = height;
  frame_->stride = width * frame_->bytes_per_pixel;
  frame_->frame_number = 0;
  std::memset(frame_->data, 0, frame_->capacity);
  std::snprintf(frame_->stream_id, sizeof frame_->stream_id, "%s", stream_id.c_str());
  __atomic_add_fetch(&frame_->sequence, 1, __ATOMIC_RELEASE);
  rendering_ = true;
  Clear();
  return frame_;
}

void FrameSlot::Stop() {
  std::lock_guard<std::mutex> lock(mutex_);
  rendering_ = false;
  Clear();
}

bool FrameSlot::Follow(int from_w, int from_h, int to_w, int to_h, int* width, int* height,
                       ktengine_pixel_format* format) {
  std::lock_guard<std::mutex> write(write_mutex_);
  std::lock_guard<std::mutex> lock(mutex_);
  if (!rendering_ || !frame_ || frame_->width != from_w || frame_->height != from_h) return false;
  if (to_w < 1 || to_h < 1) return false;
  const double fit = std::min({1.0, static_cast<double>(frame_->max_width) / to_w,
                               static_cast<double>(frame_->max_height) / to_h});
  ktengine_frame* f = frame_;
  __atomic_add_fetch(&f->sequence, 1, __ATOMIC_ACQ_REL);
  f->width = std::max(1, static_cast<int>(to_w * fit));
  f->height = std::max(1, static_cast<int>(to_h * fit));
  f->stride = f->width * f->bytes_per_pixel;
  __atomic_add_fetch(&f->sequence, 1, __ATOMIC_RELEASE);
  *width = f->width;
  *height = f->height;
  *format = static_cast<ktengine_pixel_format>(f->format);
  Clear();
  return true;
}

bool FrameSlot::rendering() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return rendering_;
}

void FrameSlot::Offer(const uint8_t* pixels, int width, int height, int stride) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!rendering_ || !frame_) return;
  if (queued_ == kPlaces) DropOldest();  // the host is that far behind
  Picture& picture = waiting_[(oldest_ + queued_) % kPlaces];
  ++queued_;
  const int bpp = frame_->bytes_per_pixel;
  width = std::min(width, frame_->max_width);
  height = std::min(height, frame_->max_height);
  picture.pixels.resize(static_cast<size_t>(width) * height * bpp);
  for (int y = 0; y < height; ++y) {
    std::memcpy(&picture.pixels[static_cast<size_t>(y) * width * bpp],
                pixels + static_cast<size_t>(y) * stride, static_cast<size_t>(width) * bpp);
  }
  picture.width = width;
  picture.height = height;
}

int FrameSlot::Take() {
  std::lock_guard<std::mutex> write(write_mutex_);
  std::lock_guard<std::mutex> lock(mutex_);
  if (queued_ == 0 || !frame_) return 0;
  if (queued_ > 1 && ++backlog_takes_ > kMaxBacklogTakes / (queued_ - 1)) {  // catch up by one
    DropOldest();
    backlog_takes_ = 0;
  }
  if (queued_ == 1) backlog_takes_ = 0;
  const Picture& picture = waiting_[oldest_];
  DropOldest();  // its place is written only by a later Offer, under mutex_ like this copy
  ktengine_frame* f = frame_;
  __atomic_add_fetch(&f->sequence, 1, __ATOMIC_ACQ_REL);  // odd: being written
  f->width = picture.width;
  f->height = picture.height;
  f->stride = picture.width * f->bytes_per_pixel;
  std::memcpy(f->data, picture.pixels.data(), picture.pixels.size());
  ++f->frame_number;
  __atomic_add_fetch(&f->sequence, 1, __ATOMIC_RELEASE);
  return 1;
}

// ---- Subscriber --------------------------------------------------------------------------------

Subscriber::~Subscriber() {
  Stop();
  for (GstElement* element : {volume_, sink_}) {
    if (element) gst_object_unref(element);
  }
}

bool Subscriber::Start(const std::string& speaker, std::string* error) {
  speaker_ = speaker;
  if (!Setup(error)) return false;
  g_signal_connect(webrtc_, "pad-added", G_CALLBACK(&Subscriber::OnPadAdded), this);
  return Play(error);
}

void Subscriber::OnPadAdded(GstElement*, GstPad* pad, gpointer self) {
  auto* sub = static_cast<Subscriber*>(self);
  if (GST_PAD_DIRECTION(pad) != GST_PAD_SRC || sub->stopped_) return;
  GstCaps* caps = gst_pad_get_current_caps(pad);
  if (!caps) caps = gst_pad_query_caps(pad, nullptr);
  const GstStructure* s = gst_caps_get_structure(caps, 0);
  const gchar* media = gst_structure_get_string(s, "media");
  const bool audio = media && std::strcmp(media, "audio") == 0;
  const bool video = media && std::strcmp(media, "video") == 0;
  guint ssrc = 0, payload = 0;
  gst_structure_get_uint(s, "ssrc", &ssrc);
  gint pt = 0;
  if (gst_structure_get_int(s, "payload", &pt)) payload = static_cast<guint>(pt);
  gst_caps_unref(caps);
  // Decoding runs on the jitter buffer's thread, without a queue of its own. After a loss that
  // retransmission did not repair in time the pictures stop at the last whole one until a key
  // frame comes (asked for by RequestKeyFrames), rather than showing the damage spread by every
  // later frame; a subscription that starts between two key frames waits for one too.
  const char* description = nullptr;
  if (audio) {
    description =
        "rtpopusdepay ! opusdec use-inband-fec=true plc=true ! audioconvert ! audioresample ! "
        "level interval=100000000 post-messages=true ! volume name=gain";
  } else if (video) {
    description =
        "rtpvp8depay request-keyframe=true wait-for-keyframe=true ! vp8dec threads=1 ! valve "
        "name=gate drop=true ! videoconvert ! videoscale ! "
        "capsfilter name=size ! appsink name=frames max-buffers=1 drop=true sync=false";
  } else {
    description = "fakesink";
  }
  GError* problem = nullptr;
  GstElement* bin = gst_parse_bin_from_description(description, TRUE, &problem);
  if (!bin) {
    if (problem) g_error_free(problem);
    return;
  }
  GstElement* pipeline = sub->pipeline_;
  gst_bin_add(GST_BIN(pipeline), bin);
  if (audio) {
    std::string speaker;
    {
      std::lock_guard<std::mutex> lock(sub->mutex_);
      speaker = sub->speaker_;
    }
    GstElement* sink = CreateDeviceElement(Device::kSpeaker,
                                           speaker.empty() ? std::string(kNullSpeaker) : speaker);
    if (!sink) sink = CreateDeviceElement(Device::kSpeaker, kNullSpeaker);
    gst_bin_add(GST_BIN(pipeline), sink);
    gst_element_link(bin, sink);
    gst_element_sync_state_with_parent(sink);
    std::lock_guard<std::mutex> lock(sub->mutex_);
    sub->sink_ = GST_ELEMENT(gst_object_ref(sink));
    sub->volume_ = gst_bin_get_by_name(GST_BIN(bin), "gain");
    g_object_set(sub->volume_, "volume", sub->gain_, "mute", sub->muted_, nullptr);
  } else if (video) {
    GstElement* frames = gst_bin_get_by_name(GST_BIN(bin), "frames");
    g_object_set(frames, "emit-signals", TRUE, nullptr);
    g_signal_connect(frames, "new-sample", G_CALLBACK(&Subscriber::OnSample), sub);
    gst_object_unref(frames);
    // Before anything flows: the closed gate must already let the caps through.
    GstElement* gate = gst_bin_get_by_name(GST_BIN(bin), "gate");
    GstElement* size = gst_bin_get_by_name(GST_BIN(bin), "size");
    sub->video_.Attach(gate, size);
    gst_object_unref(gate);
    gst_object_unref(size);
  }
  GstPad* sink_pad = gst_element_get_static_pad(bin, "sink");
  if (video) RequestKeyFrames(sub->webrtc_, sink_pad, ssrc, payload);
  if (audio) StopAudioRetransmissionRequests(sub->webrtc_, ssrc);
  gst_pad_link(pad, sink_pad);
  gst_object_unref(sink_pad);
  gst_element_sync_state_with_parent(bin);
}

GstFlowReturn Subscriber::OnSample(GstElement* sink, gpointer self) {
  auto* sub = static_cast<Subscriber*>(self);
  GstSample* sample = gst_app_sink_pull_sample(GST_APP_SINK(sink));
  if (!sample) return GST_FLOW_OK;
  const bool first = sub->video_.Deliver(sample);
  gst_sample_unref(sample);
  if (first && sub->events_.video_started && !sub->stopped_) sub->events_.video_started();
  return GST_FLOW_OK;
}

void Subscriber::SetPlayback(double gain, bool muted) {
  std::lock_guard<std::mutex> lock(mutex_);
  gain_ = std::clamp(gain, 0.0, 10.0);
  muted_ = muted;
  if (volume_) g_object_set(volume_, "volume", gain_, "mute", muted_, nullptr);
}

void Subscriber::Render(FrameSlot* slot, ktengine_pixel_format format, int width, int height) {
  video_.Render(slot, format, width, height);
}

void Subscriber::StopRender() { video_.Stop(); }

// ---- RenderBranch ------------------------------------------------------------------------------

RenderBranch::~RenderBranch() {
  for (GstElement* element : {gate_, size_}) {
    if (element) gst_object_unref(element);
  }
}

void RenderBranch::Attach(GstElement* gate, GstElement* size) {
  if (!gate || !size) return;
  if (g_object_class_find_property(G_OBJECT_GET_CLASS(gate), "drop-mode")) {
    // Caps and other sticky events pass the closed gate, so opening it needs no renegotiation.
    gst_util_set_object_arg(G_OBJECT(gate), "drop-mode", "forward-sticky-events");
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (gate_ || size_) return;
  gate_ = GST_ELEMENT(gst_object_ref(gate));
  size_ = GST_ELEMENT(gst_object_ref(size));
  Apply();
}

void RenderBranch::Render(FrameSlot* slot, ktengine_pixel_format format, int width, int height) {
  std::lock_guard<std::mutex> lock(mutex_);
  slot_ = slot;
  format_ = format;
  width_ = width;
  height_ = height;
  Apply();
}

void RenderBranch::Stop() {
  std::lock_guard<std::mutex> lock(mutex_);
  slot_ = nullptr;
  Apply();
}

void RenderBranch::Apply() {
  if (!gate_ || !size_) return;
  if (slot_) {
    GstCaps* caps = gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING,
                                        gst_video_format_to_string(VideoFormat(format_)), "width",
                                        G_TYPE_INT, width_, "height", G_TYPE_INT, height_, nullptr);
    g_object_set(size_, "caps", caps, nullptr);
    gst_caps_unref(caps);
  }
  first_ = true;
  g_object_set(gate_, "drop", slot_ == nullptr, nullptr);
}

bool RenderBranch::Deliver(GstSample* sample) {
  GstVideoInfo info;
  GstBuffer* buffer = gst_sample_get_buffer(sample);
  GstMapInfo map;
  if (!gst_video_info_from_caps(&info, gst_sample_get_caps(sample)) ||
      !gst_buffer_map(buffer, &map, GST_MAP_READ)) {
    return false;
  }
  FrameSlot* slot = nullptr;
  bool first = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    // A picture still in the format of an earlier render request is not the host's.
    if (GST_VIDEO_INFO_FORMAT(&info) == VideoFormat(format_)) {
      slot = slot_;
      first = first_ && slot;
      first_ = first_ && !slot;
    }
  }
  if (slot) {
    slot->Offer(map.data, GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info),
                GST_VIDEO_INFO_PLANE_STRIDE(&info, 0));
  }
  gst_buffer_unmap(buffer, &map);
  return first;
}

}  // namespace ktopen
