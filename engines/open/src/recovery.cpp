#include "recovery.h"

#define GST_USE_UNSTABLE_API
#include <gst/webrtc/webrtc.h>

namespace ktopen {

namespace {

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
  GstElementFactory* factory = gst_element_get_factory(element);
  const gchar* kind = factory ? GST_OBJECT_NAME(factory) : "";
  if (g_strcmp0(kind, "rtpsession") == 0) {
    g_object_set(element, "rtcp-min-interval", kRtcpMinIntervalNs, "rtcp-fraction", kRtcpFraction,
                 nullptr);
  } else if (g_strcmp0(kind, "rtprtxsend") == 0) {
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
  GstIterator* children = gst_bin_iterate_recurse(GST_BIN(webrtc));
  GValue item = G_VALUE_INIT;
  while (gst_iterator_next(children, &item) == GST_ITERATOR_OK) {
    OnElement(GST_BIN(webrtc), nullptr, GST_ELEMENT(g_value_get_object(&item)), nullptr);
    g_value_reset(&item);
  }
  g_value_unset(&item);
  gst_iterator_free(children);
  GArray* transceivers = nullptr;
  g_signal_emit_by_name(webrtc, "get-transceivers", &transceivers);
  for (guint i = 0; transceivers && i < transceivers->len; ++i) {
    Retransmit(g_array_index(transceivers, GstWebRTCRTPTransceiver*, i));
  }
  if (transceivers) g_array_unref(transceivers);
}

void SetRetransmitHistory(GstElement* webrtc, unsigned ms) {
  GstIterator* children = gst_bin_iterate_recurse(GST_BIN(webrtc));
  GValue item = G_VALUE_INIT;
  while (gst_iterator_next(children, &item) == GST_ITERATOR_OK) {
    GstElement* element = GST_ELEMENT(g_value_get_object(&item));
    GstElementFactory* factory = gst_element_get_factory(element);
    if (factory && g_strcmp0(GST_OBJECT_NAME(factory), "rtprtxsend") == 0) {
      g_object_set(element, "max-size-time", static_cast<guint>(ms), nullptr);
    }
    g_value_reset(&item);
  }
  g_value_unset(&item);
  gst_iterator_free(children);
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
