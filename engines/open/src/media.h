// The GStreamer side of a meeting: the publishing peer connection (microphone and camera, Opus and
// VP8, one webrtcbin) and one receiving peer connection per remote publisher, with decoded audio
// levels and decoded frames. Signalling is the caller's: these classes make and take SDP texts and
// ICE candidates.
#ifndef KTOPEN_MEDIA_H
#define KTOPEN_MEDIA_H

#include <gst/gst.h>
#include <gst/video/video.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "congestion.h"
#include "devices.h"
#include "ktengine/frame.h"

namespace ktopen {

// The GStreamer video format that fills a frame descriptor of `format`.
GstVideoFormat VideoFormat(ktengine_pixel_format format);

// Starts GStreamer once; false with a reason when it or an element the engines need is missing.
bool InitMedia(std::string* error);

// What a peer tells its owner. Called on GStreamer's threads; must not block for long.
struct PeerEvents {
  std::function<void()> negotiation_needed;
  std::function<void(unsigned mline, const std::string& candidate)> candidate;  // "" when done
  std::function<void(double rms_db)> level;  // every 100 ms: mic (publisher) or decoded audio
  std::function<void()> video_started;       // the first decoded frame (subscriber)
};

// Link figures of a peer connection, summed over its streams.
struct PeerStats {
  uint64_t bytes_sent = 0;
  uint64_t bytes_received = 0;
  int64_t packets_lost = 0;       // by the remote side (outbound) or by us (inbound)
  uint64_t packets_received = 0;  // inbound
  double fraction_lost = 0;       // reported by the remote side, 0..1
  double round_trip_s = 0;
  double jitter_s = 0;
  // The video streams' part of the bytes (told by their RTP source's 90 kHz clock or our camera's
  // SSRC, since webrtcbin does not tell audio from video when they share a transport).
  uint64_t video_bytes_sent = 0;
  uint64_t video_bytes_received = 0;
};

// The figures of a webrtcbin statistics reply, summed over its streams.
PeerStats ParseStats(const GstStructure* reply);

class FrameSlot;

// The part both peers share: a pipeline with one webrtcbin whose ICE agent keeps to the address
// that reaches the meeting server.
class Peer {
 public:
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  virtual ~Peer();

  // An offer or answer made and set as the local description; its SDP text, or "" on failure.
  std::string CreateOffer(std::string* error);
  std::string CreateAnswer(std::string* error);
  // Sets the remote description, keeping only the candidates on the meeting server's address.
  bool SetRemote(const std::string& type, const std::string& sdp, std::string* error);
  // A remote candidate, dropped unless it is on the meeting server's address.
  void AddRemoteCandidate(unsigned mline, const std::string& candidate);
  PeerStats Stats();
  void Stop();

 protected:
  Peer(const std::string& local_ip, const std::string& server_ip, PeerEvents events);
  bool Setup(std::string* error);  // creates the pipeline and webrtcbin
  bool Play(std::string* error);
  // CreateOffer and CreateAnswer: emits signal, takes the description in the reply's field, sets
  // it as the local one and returns its SDP; failure (into *error) when there is none.
  std::string CreateDescription(const char* signal, const char* field, const char* failure,
                                std::string* error);

  static void OnNegotiationNeeded(GstElement* webrtc, gpointer self);
  static void OnIceCandidate(GstElement* webrtc, guint mline, gchar* candidate, gpointer self);
  static void OnGatheringState(GstElement* webrtc, GParamSpec* property, gpointer self);
  static GstBusSyncReply OnBusMessage(GstBus* bus, GstMessage* message, gpointer self);
  std::string KeepServerCandidates(const std::string& sdp) const;
  bool OnServerAddress(const std::string& candidate) const;

  std::string local_ip_;
  std::string server_ip_;
  // The figures of the last statistics request. Shared with the request in flight, whose reply may
  // come after this peer is gone.
  struct StatsBox {
    std::mutex mutex;
    PeerStats stats;
  };
  std::shared_ptr<StatsBox> stats_ = std::make_shared<StatsBox>();
  PeerEvents events_;
  GstElement* pipeline_ = nullptr;
  GstElement* webrtc_ = nullptr;
  std::atomic<bool> stopped_{false};
};

// The branch that turns a stream's pictures into the host's: a gate, closed while nobody renders
// (so nothing is converted), and a caps filter that sets the host's format and size, ahead of an
// appsink whose samples go to the rendering FrameSlot. A subscription's video and the self view
// each have one. The host's threads render and stop; the streaming thread delivers.
class RenderBranch {
 public:
  RenderBranch() = default;
  RenderBranch(const RenderBranch&) = delete;
  RenderBranch& operator=(const RenderBranch&) = delete;
  ~RenderBranch();
  // The branch's gate and caps filter, once they exist (references taken); a render asked for
  // earlier is applied now.
  void Attach(GstElement* gate, GstElement* size);
  void Render(FrameSlot* slot, ktengine_pixel_format format, int width, int height);
  void Stop();
  // Hands the sample's picture to the rendering slot, unless it is still in the format of an
  // earlier request. True for the first picture handed over since the render started.
  bool Deliver(GstSample* sample);

 private:
  void Apply();  // REQUIRES: mutex_ held

  std::mutex mutex_;
  GstElement* gate_ = nullptr;  // GUARDED_BY(mutex_)
  GstElement* size_ = nullptr;  // GUARDED_BY(mutex_)
  FrameSlot* slot_ = nullptr;
  ktengine_pixel_format format_ = KTENGINE_RGB888;
  int width_ = 0, height_ = 0;
  bool first_ = true;
};

class Publisher : public Peer {
 public:
  Publisher(const std::string& local_ip, const std::string& server_ip, PeerEvents events)
      : Peer(local_ip, server_ip, std::move(events)) {}
  // Builds and starts the pipeline with the given sources ("" for none: silence, black frames).
  bool Start(const std::string& microphone, const std::string& camera, int width, int height,
             int fps, std::string* error);
  // Switches the source in place (a new device, or on and off); volume 0..100.
  void SetMicrophone(const std::string& id, bool enabled, int volume);
  void SetCamera(const std::string& id, bool enabled, int width, int height, int fps);
  // Turns the sent picture clockwise by 0, 90, 180 or 270 degrees.
  void SetRotation(int degrees);
  // Self view: the camera's pictures before encoding go to `slot` in that format and size.
  void RenderSelf(FrameSlot* slot, ktengine_pixel_format format, int width, int height);
  void StopSelf();
  // Sets the camera's bitrate from the server's newest receiver report, if there is a new one
  // (congestion.cpp). Call about once a second.
  void AdaptBitrate();
  // Cuts the camera's bitrate when the server asked for many of the packets sent since the last
  // call again (congestion.cpp): a flooded link is seen within a few hundred milliseconds. Call
  // every few hundred milliseconds.
  void WatchRequests();
  // Whether a new receiver report from the server came within `limit` (as of the last
  // AdaptBitrate): the server is alive, whatever its HTTP API does on a congested link.
  bool HeardFromServerWithin(std::chrono::milliseconds limit) const;

 private:
  void Swap(GstElement** current, GstElement* replacement, const char* downstream);
  // Switches *source (feeding downstream) to device wanted, "" meaning off, and records it in
  // *current. The generated devices switch in place through toggle; any other change
  // swaps in a new element.
  void SelectSource(Device::Kind kind, const std::string& wanted,
                    void (*toggle)(GstElement*, const std::string&), const char* downstream,
                    std::string* current, GstElement** source);

  static GstFlowReturn OnSelfSample(GstElement* sink, gpointer self);
  void SetVideoBitrate(int bps);
  static constexpr guint kWatchedPackets = 15;  // a quarter of a second at 500 kbit/s
  static GstPadProbeReturn OnVideoPackets(GstPad* pad, GstPadProbeInfo* info, gpointer self);

  GstElement* audio_source_ = nullptr;
  GstElement* video_source_ = nullptr;
  RenderBranch self_;       // the camera's pictures before encoding
  std::string microphone_;  // the device behind audio_source_ ("" silence)
  std::string camera_;      // the device behind video_source_ ("" black)
  static guint video_ssrc();
  BitrateController bitrate_{kVideoMinBitrate, kVideoMaxBitrate, kVideoMaxBitrate};
  guint last_report_highest_ = 0;
  std::atomic<guint> video_packets_{0};  // RTP packets of the camera's stream sent so far
  guint watched_packets_ = 0, watched_requests_ = 0;
  std::chrono::steady_clock::time_point last_cut_at_;
  std::chrono::steady_clock::time_point last_report_at_;
};

// The frames of one rendered stream, shared between the decoder's thread (which leaves frames
// here) and the host's polling thread (which takes them into the stream's descriptor, one a
// poll). Frames come in bursts when the jitter buffer lets go of those it held while a packet was
// missing: up to kPlaces are kept, so that a burst is shown frame by frame instead of all but the
// last being skipped (the host polls only as often as the sender sends, so the backlog shrinks
// when a frame never comes). A backlog of n frames that outlasts kMaxBacklogTakes / (n - 1) polls
// is cut by skipping one frame, so that it never adds delay for long, and a long one the least.
class FrameSlot {
 public:
  FrameSlot() = default;
  FrameSlot(const FrameSlot&) = delete;
  FrameSlot& operator=(const FrameSlot&) = delete;
  ~FrameSlot();  // the descriptor goes back to the pool, never to the heap
  // Rendering starts with a descriptor for width x height in that format; returns the descriptor.
  ktengine_frame* Start(const std::string& stream_id, ktengine_pixel_format format, int width,
                        int height);
  void Stop();
  bool rendering() const;
  // When rendering at from_w x from_h: switches to to_w x to_h (scaled down to fit the
  // descriptor, whose address stays), and gives the new size and format. False otherwise.
  bool Follow(int from_w, int from_h, int to_w, int to_h, int* width, int* height,
              ktengine_pixel_format* format);
  // A decoded frame in the rendering format, `stride` bytes per row.
  void Offer(const uint8_t* pixels, int width, int height, int stride);
  // Writes the oldest waiting frame into the descriptor: 1 when there was one.
  int Take();

  static constexpr int kPlaces = 5;            // a sixth of a second at 30 frames a second
  static constexpr int kMaxBacklogTakes = 15;  // half a second of polls

 private:
  struct Picture {
    std::vector<uint8_t> pixels;
    int width = 0, height = 0;
  };
  void Clear() { queued_ = 0, backlog_takes_ = 0; }                    // mutex_ held
  void DropOldest() { oldest_ = (oldest_ + 1) % kPlaces, --queued_; }  // mutex_ held, queued_ > 0

  mutable std::mutex mutex_;
  ktengine_frame* frame_ = nullptr;  // GUARDED_BY(mutex_)
  bool rendering_ = false;
  Picture waiting_[kPlaces];  // a ring: the oldest at oldest_, queued_ of them
  int oldest_ = 0, queued_ = 0;
  int backlog_takes_ = 0;   // polls in a row that found more than one frame waiting
  std::mutex write_mutex_;  // one Take at a time
};

class Subscriber : public Peer {
 public:
  Subscriber(const std::string& local_ip, const std::string& server_ip, PeerEvents events)
      : Peer(local_ip, server_ip, std::move(events)) {}
  ~Subscriber() override;
  // Prepares the pipeline; decoding chains are added as the remote streams appear. `speaker` is
  // the playback device ("" or the null speaker: nowhere).
  bool Start(const std::string& speaker, std::string* error);
  // Playback gain (1.0 = unchanged) and mute.
  void SetPlayback(double gain, bool muted);
  // Moves the received sound to another speaker ("" or the null speaker: nowhere) between two
  // buffers (output_switch.cpp). Worker thread.
  void SetSpeaker(const std::string& speaker);
  // Decoded frames go to `slot` in that format and size while rendering.
  void Render(FrameSlot* slot, ktengine_pixel_format format, int width, int height);
  void StopRender();

 private:
  static void OnPadAdded(GstElement* webrtc, GstPad* pad, gpointer self);
  static GstFlowReturn OnSample(GstElement* sink, gpointer self);

  std::string speaker_;
  std::mutex mutex_;
  GstElement* volume_ = nullptr;  // GUARDED_BY(mutex_)
  GstElement* sink_ = nullptr;    // GUARDED_BY(mutex_): the speaker's element
  double gain_ = 1.0;
  bool muted_ = false;
  RenderBranch video_;
};

}  // namespace ktopen

#endif  // KTOPEN_MEDIA_H
