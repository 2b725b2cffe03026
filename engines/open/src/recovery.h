// Loss recovery on a peer connection: NACK with retransmission on every transceiver of a
// webrtcbin, sending and receiving. Key-frame requests need nothing here: the VP8 depayloader asks
// for one after a loss it could not repair (PLI), and the sender's RTP session turns a PLI or FIR
// from the server into a key-frame request to the encoder. Opus in-band FEC is set on the encoder
// and decoder in media.cpp.
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

// How long a sender keeps what it sent for retransmission: normally about a receiver's jitter
// buffer (an older packet is useless to it); on a congested link next to nothing, since every
// retransmission then takes the place of new video and is lost again as likely.
inline constexpr unsigned kRetransmitHistoryMs = 250;
inline constexpr unsigned kNoRetransmitHistoryMs = 1;
void SetRetransmitHistory(GstElement* webrtc, unsigned ms);

// A receiving peer's answer with the SSRC its RTCP is sent from announced in the video section.
// A receive-only peer sends no media, so the server cannot otherwise tell which of the bundled
// streams its feedback is about, and took NACKs for video as the audio's (and retransmitted
// nothing). Returns `answer` unchanged when the SSRC is not known yet.
std::string AnnounceReceiverSsrc(GstElement* webrtc, const std::string& answer);

}  // namespace ktopen

#endif  // KTOPEN_RECOVERY_H
