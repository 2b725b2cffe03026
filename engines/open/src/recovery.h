// Loss recovery on a peer connection: NACK with retransmission on every transceiver of a
// webrtcbin, sending and receiving, and key-frame requests (PLI) from a receiving peer's video.
// The sender's RTP session turns a PLI or FIR from the server into a key-frame request to the
// encoder by itself. Opus in-band FEC is set on the encoder and decoder in media.cpp.
#ifndef KTOPEN_RECOVERY_H
#define KTOPEN_RECOVERY_H

#include <gst/gst.h>

#include <string>

namespace ktopen {

// Turns retransmission on for the transceivers webrtcbin has and makes from now on (the sender's,
// created with its request pads, and the receiver's, created from the server's offer). Call before
// the first description is made or set.
void EnableRetransmission(GstElement* webrtc);

// The RTP session of a webrtcbin's bundled streams (a new reference), or nullptr.
GObject* InternalRtpSession(GstElement* webrtc);

// How long a sender keeps what it sent for retransmission: about a receiver's video jitter
// buffer (an older packet is useless to it). Kept on a congested link too: there the losses come
// from the link's queue, the controller soon sends less, and a retransmitted packet costs far less
// than the key frame a loss otherwise needs (without retransmission under a 600 kbit/s cap a
// receiver got 17 frames a second, with it 20 to 23).
inline constexpr unsigned kRetransmitHistoryMs = 250;

// Retransmission requests a sending webrtcbin has received so far (one per packet asked for).
guint RetransmissionRequests(GstElement* webrtc);

// How long a received video stream waits for a missing packet: long enough for the server's later
// tries. The server retransmits a packet to us at most once in 200 ms (a second request within
// that time is ignored), and asks the sender again for a packet it lost itself 155 ms after the
// first time; with 100 ms, a retransmission that was lost itself was never repaired (about one
// packet in a hundred under 10% loss, each a key frame's worth of frozen pictures). The wait
// holds the pictures only while a packet is missing: on a clean link they go straight on.
inline constexpr unsigned kVideoJitterMs = 200;

// Key-frame requests for the received video stream `ssrc` (payload type `payload`) whose decoding
// chain starts at `decoder_sink`, linked to the webrtcbin's pad for it. Sends a PLI to the
// server, at most one per kKeyFrameRequestGapMs:
//  - when the depayloader asks for a key frame (it dropped a frame it could not complete, and
//    waits for the next key frame); the request otherwise dies inside webrtcbin;
//  - as soon as the jitter buffer asks for a packet the second time: the first retransmission
//    did not come, and the server will not send it again for 200 ms, so the key frame is asked
//    for while the packet may still come, rather than after the pictures froze.
// Also gives that stream's jitter buffer kVideoJitterMs. Call from the pad-added handler, before
// linking. Every request leaves on the RTP session's own thread-safe pad; nothing is kept beyond
// the pipeline.
inline constexpr unsigned kKeyFrameRequestGapMs = 100;
void RequestKeyFrames(GstElement* webrtc, GstPad* decoder_sink, guint ssrc, guint payload);

// Turns off retransmission requests for the received audio stream `ssrc`: the server does not
// retransmit audio (Opus in-band FEC and concealment cover a loss), so each request was wasted.
// Done on the stream's jitter buffer: a transceiver made from the server's offer has no kind yet
// when it appears (so EnableRetransmission asks for everything), and turning its do-nack off
// once the description is set did not reach the jitter buffer (still ~280 requests a run).
void StopAudioRetransmissionRequests(GstElement* webrtc, guint ssrc);

// A receiving peer's answer with the SSRC its RTCP is sent from announced in the video section.
// A receive-only peer sends no media, so the server cannot otherwise tell which of the bundled
// streams its feedback is about, and took NACKs for video as the audio's (and retransmitted
// nothing). Returns `answer` unchanged when the SSRC is not known yet.
std::string AnnounceReceiverSsrc(GstElement* webrtc, const std::string& answer);

}  // namespace ktopen

#endif  // KTOPEN_RECOVERY_H
