#include "recovery.h"

#define GST_USE_UNSTABLE_API
#include <gst/video/video.h>
#include <gst/webrtc/webrtc.h>

#include <atomic>
#include <functional>
#include <memory>

namespace ktopen {

namespace {

bool MadeBy(GstElement* element, const char* factory_name) {
  GstElementFactory* factory = gst_element_get_factory(element);
  return factory && g_strcmp0(GST_OBJECT_NAME(factory), factory_name) == 0;
}

// Calls `visit` for every element inside the webrtcbin, at any depth, until it returns false.
void ForEachElement(GstElement* webrtc, const std::function<bool(GstElement*)>& visit) {
  GstIterator* children = gst_bin_iterate_recurse(GST_BIN(webrtc));
  GValue item = G_VALUE_INIT;
  bool more = true;
  while (more && gst_iterator_next(children, &item) == GST_ITERATOR_OK) {
    more = visit(GST_ELEMENT(g_value_get_object(&item)));
    g_value_reset(&item);
  }
  g_value_unset(&item);
  gst_iterator_free(children);
}

// The first element made by `factory_name` that `match` accepts (a new reference), or nullptr.
GstElement* FindElement(GstElement* webrtc, const char* factory_name,
                        const std::function<bool(GstElement*)>& match) {
  GstElement* found = nullptr;
  ForEachElement(webrtc, [&](GstElement* element) {
    if (!MadeBy(element, factory_name) || !match(element)) return true;
    found = GST_ELEMENT(gst_object_ref(element));
    return false;
  });
  return found;
}

// The jitter buffer of the received stream `ssrc` (a new reference), or nullptr.
GstElement* JitterBufferOf(GstElement* webrtc, guint ssrc) {
  return FindElement(webrtc, "rtpjitterbuffer", [ssrc](GstElement* element) {
    GstPad* sink = gst_element_get_static_pad(element, "sink");
    GstCaps* caps = sink ? gst_pad_get_current_caps(sink) : nullptr;
    guint its = 0;
    const bool match = caps &&
                       gst_structure_get_uint(gst_caps_get_structure(caps, 0), "ssrc", &its) &&
                       its == ssrc;
    if (caps) gst_caps_unref(caps);
    if (sink) gst_object_unref(sink);
    return match;
  });
}

// Sends PLIs for one received video stream into the RTP session, one per kKeyFrameRequestGapMs
// at most. Shared by the probes that trigger it, which run on different streaming threads.
class KeyFrameRequester {
 public:
  KeyFrameRequester(GstPad* session_pad, guint ssrc, guint payload)
      : session_pad_(session_pad), ssrc_(ssrc), payload_(payload) {}
  KeyFrameRequester(const KeyFrameRequester&) = delete;
  KeyFrameRequester& operator=(const KeyFrameRequester&) = delete;
  ~KeyFrameRequester() { gst_object_unref(session_pad_); }

  void Request() {
    const gint64 now = g_get_monotonic_time();
    gint64 last = last_us_.load();
    if (last != 0 && now - last < static_cast<gint64>(kKeyFrameRequestGapMs) * 1000) return;
    if (!last_us_.compare_exchange_strong(last, now)) return;  // another thread just sent one
    // The session sends a PLI for an upstream key-unit request naming the SSRC (a FIR when all
    // headers are asked for, which the server does not act on).
    GstStructure* request =
        gst_structure_new("GstForceKeyUnit", "all-headers", G_TYPE_BOOLEAN, FALSE, "ssrc",
                          G_TYPE_UINT, ssrc_, "payload", G_TYPE_UINT, payload_, nullptr);
    gst_pad_send_event(session_pad_, gst_event_new_custom(GST_EVENT_CUSTOM_UPSTREAM, request));
  }

  static void Release(gpointer shared) {
    delete static_cast<std::shared_ptr<KeyFrameRequester>*>(shared);
  }

 private:
  GstPad* session_pad_;  // the RTP session's recv_rtp_src
  const guint ssrc_, payload_;
  std::atomic<gint64> last_us_{0};
};

KeyFrameRequester* RequesterOf(gpointer shared) {
  return static_cast<std::shared_ptr<KeyFrameRequester>*>(shared)->get();
}

// On the decoding chain's sink pad: the depayloader's key-frame requests.
GstPadProbeReturn OnDecoderRequest(GstPad*, GstPadProbeInfo* info, gpointer shared) {
  if (!gst_video_event_is_force_key_unit(GST_PAD_PROBE_INFO_EVENT(info))) return GST_PAD_PROBE_OK;
  RequesterOf(shared)->Request();
  return GST_PAD_PROBE_DROP;
}

// On the jitter buffer's sink pad: its retransmission requests, the first try being 0.
GstPadProbeReturn OnRetransmissionRequest(GstPad*, GstPadProbeInfo* info, gpointer shared) {
  const GstStructure* s = gst_event_get_structure(GST_PAD_PROBE_INFO_EVENT(info));
  guint retry = 0;
  if (s && gst_structure_has_name(s, "GstRTPRetransmissionRequest") &&
      gst_structure_get_uint(s, "retry", &retry) && retry >= 1) {
    RequesterOf(shared)->Request();
  }
  return GST_PAD_PROBE_OK;
}

void Retransmit(GstWebRTCRTPTransceiver* transceiver) {
  // Audio is not retransmitted: Opus carries its own FEC, and the server neither asks for nor
  // accepts audio retransmissions.
  GstWebRTCKind kind = GST_WEBRTC_KIND_UNKNOWN;
  if (g_object_class_find_property(G_OBJECT_GET_CLASS(transceiver), "kind")) {
    g_object_get(transceiver, "kind", &kind, nullptr);
  }
  if (kind == GST_WEBRTC_KIND_AUDIO) return;
  // do-nack: the receiving side's jitter buffer asks for what is missing (and waits for it within
  // its latency); the sending side keeps what it sent and answers with RTX (RFC 4588), which the
  // offer then announces.
  if (g_object_class_find_property(G_OBJECT_GET_CLASS(transceiver), "do-nack")) {
    g_object_set(transceiver, "do-nack", TRUE, nullptr);
  }
}

// A NACK or PLI goes out in an early RTCP packet only when no early packet went out within the
// last regular interval; otherwise it waits for the next regular one. With the default interval
// (5 s) most requests came after the jitter buffer had given the packet up, and still a third
// with 100 ms: regular RTCP every 20 ms at most, within a tenth of the session's bandwidth
// (instead of a twentieth), so that a second loss soon after the first is asked for in time.
constexpr guint64 kRtcpMinIntervalNs = 20 * GST_MSECOND;
constexpr double kRtcpFraction = 0.1;
void OnElement(GstBin*, GstBin*, GstElement* element, gpointer) {
  if (MadeBy(element, "rtpsession")) {
    g_object_set(element, "rtcp-min-interval", kRtcpMinIntervalNs, "rtcp-fraction", kRtcpFraction,
                 nullptr);
  } else if (MadeBy(element, "rtprtxsend")) {
    g_object_set(element, "max-size-time", static_cast<guint>(kRetransmitHistoryMs), nullptr);
  }
}

void OnNewTransceiver(GstElement*, GstWebRTCRTPTransceiver* transceiver, gpointer) {
  Retransmit(transceiver);
}

}  // namespace

void EnableRetransmission(GstElement* webrtc) {
  g_signal_connect(webrtc, "on-new-transceiver", G_CALLBACK(&OnNewTransceiver), nullptr);
  // The RTP sessions and retransmission senders are made inside webrtcbin as streams appear.
  g_signal_connect(webrtc, "deep-element-added", G_CALLBACK(&OnElement), nullptr);
  ForEachElement(webrtc, [webrtc](GstElement* element) {
    OnElement(GST_BIN(webrtc), nullptr, element, nullptr);
    return true;
  });
  GArray* transceivers = nullptr;
  g_signal_emit_by_name(webrtc, "get-transceivers", &transceivers);
  for (guint i = 0; transceivers && i < transceivers->len; ++i) {
    Retransmit(g_array_index(transceivers, GstWebRTCRTPTransceiver*, i));
  }
  if (transceivers) g_array_unref(transceivers);
}

guint RetransmissionRequests(GstElement* webrtc) {
  guint total = 0;
  ForEachElement(webrtc, [&total](GstElement* element) {
    if (MadeBy(element, "rtprtxsend")) {
      guint requests = 0;
      g_object_get(element, "num-rtx-requests", &requests, nullptr);
      total += requests;
    }
    return true;
  });
  return total;
}

void RequestKeyFrames(GstElement* webrtc, GstPad* decoder_sink, guint ssrc, guint payload) {
  GstElement* session = FindElement(webrtc, "rtpsession", [](GstElement*) { return true; });
  GstPad* session_pad = session ? gst_element_get_static_pad(session, "recv_rtp_src") : nullptr;
  if (session) gst_object_unref(session);
  if (!session_pad) return;
  auto requester = std::make_shared<KeyFrameRequester>(session_pad, ssrc, payload);
  gst_pad_add_probe(decoder_sink, GST_PAD_PROBE_TYPE_EVENT_UPSTREAM, &OnDecoderRequest,
                    new std::shared_ptr<KeyFrameRequester>(requester), &KeyFrameRequester::Release);
  if (GstElement* jitter = JitterBufferOf(webrtc, ssrc)) {
    g_object_set(jitter, "latency", kVideoJitterMs, nullptr);
    GstPad* sink = gst_element_get_static_pad(jitter, "sink");
    gst_pad_add_probe(sink, GST_PAD_PROBE_TYPE_EVENT_UPSTREAM, &OnRetransmissionRequest,
                      new std::shared_ptr<KeyFrameRequester>(requester),
                      &KeyFrameRequester::Release);
    gst_object_unref(sink);
    gst_object_unref(jitter);
  }
}

void StopAudioRetransmissionRequests(GstElement* webrtc, guint ssrc) {
  if (GstElement* jitter = JitterBufferOf(webrtc, ssrc)) {
    g_object_set(jitter, "do-retransmission", FALSE, nullptr);
    gst_object_unref(jitter);
  }
}

GObject* InternalRtpSession(GstElement* webrtc) {
  GstElement* rtpbin = gst_bin_get_by_name(GST_BIN(webrtc), "rtpbin");
  if (!rtpbin) return nullptr;
  GObject* session = nullptr;
  g_signal_emit_by_name(rtpbin, "get-internal-session", 0u, &session);
  gst_object_unref(rtpbin);
  return session;
}

std::string AnnounceReceiverSsrc(GstElement* webrtc, const std::string& answer) {
  GObject* session = InternalRtpSession(webrtc);
  if (!session) return answer;
  guint ssrc = 0;
  if (g_object_class_find_property(G_OBJECT_GET_CLASS(session), "internal-ssrc")) {
    g_object_get(session, "internal-ssrc", &ssrc, nullptr);
  }
  g_object_unref(session);
  const size_t video = answer.find("m=video");
  if (ssrc == 0 || video == std::string::npos) return answer;
  size_t end = answer.find("\r\nm=", video);
  end = end == std::string::npos ? answer.size() : end + 2;
  return answer.substr(0, end) + "a=ssrc:" + std::to_string(ssrc) + " cname:convoke-receiver\r\n" +
         answer.substr(end);
}

}  // namespace ktopen
