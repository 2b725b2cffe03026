#include "congestion.h"

#include <algorithm>

#define GST_USE_UNSTABLE_API
#include <gst/webrtc/webrtc.h>

#include "media.h"
#include "recovery.h"

namespace ktopen {

BitrateController::BitrateController(int min_bps, int max_bps, int start_bps)
    : min_(min_bps), max_(max_bps), target_(std::clamp(start_bps, min_bps, max_bps)) {}

int BitrateController::Update(double fraction_lost, double round_trip_s) {
  fraction_lost = std::clamp(fraction_lost, 0.0, 1.0);
  if (round_trip_s > 0 && (lowest_round_trip_ == 0 || round_trip_s < lowest_round_trip_)) {
    lowest_round_trip_ = round_trip_s;
  }
  const bool queueing = round_trip_s > 0 && round_trip_s > lowest_round_trip_ + 0.1;
  double next = target_;
  if (fraction_lost > 0.10) {
    // With a queue as well, the link carries less still (the queue must drain besides).
    return Cut(fraction_lost, queueing ? 0.7 : 1.0);
  } else if (queueing) {
    next = target_ * 0.7;
  } else if (fraction_lost < 0.02) {
    // Quickly up to near the rate that last flooded the link, slowly past it, and quickly again
    // once well past it (the link has room now).
    const bool near_flood = flooded_at_ > 0 && target_ >= kNearFlood * flooded_at_ &&
                            target_ <= kPastFlood * flooded_at_;
    next = near_flood ? target_ * 1.05 + 1000 : target_ * 1.2 + 1000;
  }
  target_ = std::clamp(static_cast<int>(next), min_, max_);
  return target_;
}

int BitrateController::OnRequests(double fraction_requested) {
  return fraction_requested > kHeavyRequests ? Cut(std::min(fraction_requested, 1.0), 1.0)
                                             : target_;
}

int BitrateController::Cut(double fraction_lost, double more) {
  // What got through, and a little less: the link's share is found within a report or two. A cut
  // at the floor says nothing about the link (the queue left by earlier ones is still draining).
  if (target_ > min_) flooded_at_ = target_;
  target_ = std::clamp(static_cast<int>(target_ * (1.0 - fraction_lost) * 0.9 * more), min_, max_);
  return target_;
}

// ---- The publisher's side ----------------------------------------------------------------------

namespace {

// The newest receiver report about our camera's stream: fraction lost (0..1), round trip (s) and
// the extended highest sequence number it covers (to tell a new report from the last one). The
// RTP session keeps the report blocks it received with the source that sent them (the server),
// naming the source they are about. False when there is none yet.
bool VideoReport(GstElement* webrtc, guint ssrc, double* lost, double* round_trip, guint* highest) {
  GObject* session = InternalRtpSession(webrtc);
  if (!session) return false;
  GstStructure* stats = nullptr;
  g_object_get(session, "stats", &stats, nullptr);
  g_object_unref(session);
  if (!stats) return false;
  bool found = false;
  const GValue* sources = gst_structure_get_value(stats, "source-stats");
  G_GNUC_BEGIN_IGNORE_DEPRECATIONS  // the session still lists its sources in a GValueArray
      GValueArray* list = sources && G_VALUE_TYPE(sources) == g_value_array_get_type()
                              ? static_cast<GValueArray*>(g_value_get_boxed(sources))
                              : nullptr;
  for (guint i = 0; list && i < list->n_values && !found; ++i) {
    const GstStructure* s = gst_value_get_structure(g_value_array_get_nth(list, i));
    gboolean have = FALSE;
    guint about = 0, fraction = 0, rtt = 0;
    if (s && gst_structure_get_boolean(s, "have-rb", &have) && have &&
        gst_structure_get_uint(s, "rb-ssrc", &about) && about == ssrc &&
        gst_structure_get_uint(s, "rb-fractionlost", &fraction) &&
        gst_structure_get_uint(s, "rb-round-trip", &rtt) &&
        gst_structure_get_uint(s, "rb-exthighestseq", highest)) {
      *lost = fraction / 256.0;
      *round_trip = rtt / 65536.0;
      found = true;
    }
  }
  G_GNUC_END_IGNORE_DEPRECATIONS
  gst_structure_free(stats);
  return found;
}

}  // namespace

void Publisher::AdaptBitrate() {
  if (!pipeline_ || stopped_) return;
  double lost = 0, round_trip = 0;
  guint highest = 0;
  if (!VideoReport(webrtc_, video_ssrc(), &lost, &round_trip, &highest) ||
      highest == last_report_highest_) {
    return;  // no new report since the last time
  }
  last_report_highest_ = highest;
  last_report_at_ = std::chrono::steady_clock::now();
  const int before = bitrate_.target();
  const int after = bitrate_.Update(lost, round_trip);
  if (after != before) SetVideoBitrate(after);
}

void Publisher::SetVideoBitrate(int bps) {
  GstElement* encoder = gst_bin_get_by_name(GST_BIN(pipeline_), "encoder");
  if (!encoder) return;
  g_object_set(encoder, "target-bitrate", bps, nullptr);
  gst_object_unref(encoder);
}

void Publisher::WatchRequests() {
  if (!pipeline_ || stopped_) return;
  const guint packets = video_packets_.load(), requests = RetransmissionRequests(webrtc_);
  const guint sent = packets - watched_packets_, asked = requests - watched_requests_;
  if (sent < kWatchedPackets) return;  // too few to tell yet
  watched_packets_ = packets;
  watched_requests_ = requests;
  // A cut shows in the requests only once the queue it left has drained: one at a time.
  const auto now = std::chrono::steady_clock::now();
  if (now - last_cut_at_ < std::chrono::seconds(1)) return;
  const int before = bitrate_.target();
  const int after = bitrate_.OnRequests(std::min(1.0, static_cast<double>(asked) / sent));
  if (after == before) return;
  last_cut_at_ = now;
  SetVideoBitrate(after);
}

bool Publisher::HeardFromServerWithin(std::chrono::milliseconds limit) const {
  return last_report_at_ != std::chrono::steady_clock::time_point() &&
         std::chrono::steady_clock::now() - last_report_at_ < limit;
}

}  // namespace ktopen
