// Congestion control for the camera: the sender's video bitrate follows what the server reports
// receiving (the loss fraction and round trip of its RTCP receiver reports), within the room's
// cap. A loss-based controller in the manner of the usual real-time ones: more than 10% lost cuts
// the rate to what got through, a round trip well above the lowest seen cuts it a little
// (a queue is building on a narrow link), and under 2% lost with a short queue it grows by 20% a
// report, so a link that recovers is used fully again within seconds.
#ifndef KTOPEN_CONGESTION_H
#define KTOPEN_CONGESTION_H

namespace ktopen {

// The camera's encoder. Constant bitrate, so that the stream keeps to the target the controller
// sets (in its default variable mode VP8 spent three to five times a low target on the moving
// test picture and the link stayed flooded), and allowed to encode fewer pixels when the target
// is too low for the picture (libvpx scales down by itself and back up when the rate allows).
inline constexpr const char* kCameraEncoder =
    "vp8enc name=encoder deadline=1 threads=1 cpu-used=16 static-threshold=100 "
    "target-bitrate=500000 error-resilient=default end-usage=cbr resize-allowed=true "
    "keyframe-max-dist=60";

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
  int target() const { return target_; }

 private:
  int min_, max_, target_;
  double lowest_round_trip_ = 0;
};

}  // namespace ktopen

#endif  // KTOPEN_CONGESTION_H
