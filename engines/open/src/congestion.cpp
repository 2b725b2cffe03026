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
    // What got through, and a little less: the link's share is found within a report or two.
    next = target_ * (1.0 - fraction_lost) * 0.9;
  } else if (queueing) {
    next = target_ * 0.9;
  } else if (fraction_lost < 0.02) {
    next = target_ * 1.2 + 1000;
  }
  target_ = std::clamp(static_cast<int>(next), min_, max_);
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
  if (after == before) return;
  GstElement* encoder = gst_bin_get_by_name(GST_BIN(pipeline_), "encoder");
  if (!encoder) return;
  g_object_set(encoder, "target-bitrate", after, nullptr);
  gst_object_unref(encoder);
}

bool Publisher::HeardFromServerWithin(std::chrono::milliseconds limit) const {
  return last_report_at_ != std::chrono::steady_clock::time_point() &&
         std::chrono::steady_clock::now() - last_report_at_ < limit;
}

}  // namespace ktopen
