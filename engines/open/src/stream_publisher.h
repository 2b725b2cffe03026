// A further video stream of the local participant (a shared screen, network video): a peer
// connection of its own that sends one video source as VP8, beside the publisher of the
// microphone and camera (media.h). The caller owns the signalling, as for the other peers.
#ifndef KTOPEN_STREAM_PUBLISHER_H
#define KTOPEN_STREAM_PUBLISHER_H

#include <functional>
#include <string>

#include "media.h"

namespace ktopen {

class StreamPublisher : public Peer {
 public:
  StreamPublisher(const std::string& local_ip, const std::string& server_ip, PeerEvents events)
      : Peer(local_ip, server_ip, std::move(events)) {}
  // Sends `source` (a floating element with a "src" pad giving raw video, taken over) at width x
  // height and fps. `paced` puts the source on the pipeline's clock (a file, which is otherwise
  // read as fast as it decodes). `ended` is called on a GStreamer thread when the source ends.
  bool Start(GstElement* source, int width, int height, int fps, bool paced,
             std::function<void()> ended, std::string* error);

 private:
  static GstPadProbeReturn OnSourceEvent(GstPad* pad, GstPadProbeInfo* info, gpointer self);
  std::function<void()> ended_;
};

}  // namespace ktopen

#endif  // KTOPEN_STREAM_PUBLISHER_H
