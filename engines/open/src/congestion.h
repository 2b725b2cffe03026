// Congestion control for the camera: the sender's video bitrate follows what the server reports
// receiving (the loss fraction and round trip of its RTCP receiver reports), within the room's
// cap. A loss-based controller in the manner of the usual real-time ones: more than 10% lost cuts
// the rate to what got through, a round trip well above the lowest seen cuts it a little
// (a queue is building on a narrow link), and under 2% lost with a short queue it grows by 20% a
// report, so a link that recovers is used fully again within seconds; from 85% to 115% of the
// rate at which the link last flooded, by 5% a report, so that a narrow link is not flooded again
// every few seconds. Many retransmission requests from the server cut the rate as loss does.
#ifndef KTOPEN_CONGESTION_H
#define KTOPEN_CONGESTION_H

namespace ktopen {

// The camera's encoder. Constant bitrate, so that the stream keeps to the target the controller
// sets (in its default variable mode VP8 spent three to five times a low target on the moving
// test picture and the link stayed flooded), and allowed to encode fewer pixels when the target
// is too low for the picture (libvpx scales down by itself and back up when the rate allows).
// Its rate buffer is a second, not six: with six it went on spending what the old target allowed
// for seconds after a cut (190 kbit/s two seconds after an 80 kbit/s target), and a narrow link
// stayed flooded that long.
inline constexpr const char* kCameraEncoder =
    "vp8enc name=encoder deadline=1 threads=1 cpu-used=16 static-threshold=100 "
    "target-bitrate=500000 error-resilient=default end-usage=cbr resize-allowed=true "
    "keyframe-max-dist=60 buffer-size=1000 buffer-initial-size=500 buffer-optimal-size=600";

// Within the room's cap (512 kbit/s, CreateRoomRequest), audio's 32 kbit/s beside.
inline constexpr int kVideoMaxBitrate = 500000;
inline constexpr int kVideoMinBitrate = 80000;

// Not thread-safe: one owner calls Update, once per receiver report.
class BitrateController {
 public:
  BitrateController(int min_bps, int max_bps, int start_bps);
  // One report: `fraction_lost` 0..1 since the previous one, `round_trip_s` (0 when unknown).
  // Returns the new target in bits per second.
  int Update(double fraction_lost, double round_trip_s);
  // The server asked for `fraction_requested` (0..1) of the packets sent lately again: above
  // kHeavyRequests the link is flooded, and the rate is cut as for that much loss, seconds
  // before the receiver reports tell (they come once a second and speak of the second before).
  // Returns the new target.
  int OnRequests(double fraction_requested);
  static constexpr double kHeavyRequests = 0.2;
  int target() const { return target_; }

 private:
  int Cut(double fraction_lost, double more);

  static constexpr double kNearFlood = 0.85, kPastFlood = 1.15;

  int min_, max_, target_;
  int flooded_at_ = 0;  // the target when the link last flooded (0: never)
  double lowest_round_trip_ = 0;
};

}  // namespace ktopen

#endif  // KTOPEN_CONGESTION_H
