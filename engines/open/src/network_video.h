// Network video: a local file or an HTTP or RTSP source read as a further video stream. The
// source is read once before it is accepted (GstDiscoverer), so that an unreadable source, or one
// without video, is refused with a reason instead of failing later in the meeting.
#ifndef KTOPEN_NETWORK_VIDEO_H
#define KTOPEN_NETWORK_VIDEO_H

#include <gst/gst.h>

#include <string>

namespace ktopen {

struct VideoSource {
  std::string uri;            // what GStreamer opens
  int width = 0, height = 0;  // of the source's first video stream
  bool live = false;          // a live source paces itself; a file is paced by the clock
};

// The URI for a host's text: an absolute path or a file://, http://, https:// or rtsp:// URL.
bool SourceUri(const std::string& url, std::string* uri, std::string* error);

// Opens the source and reads what it holds; false with a reason when it cannot be read or holds
// no video. Blocks up to about five seconds.
bool ProbeVideoSource(const std::string& url, VideoSource* source, std::string* error);

// The size a network video is sent at: the source's shape, at most 1280x720, even.
void NetworkVideoSentSize(int width, int height, int* sent_width, int* sent_height);

// A new source that decodes the video of the source (floating reference): a bin with a "src"
// pad, or nullptr. Other streams of the source are not decoded.
GstElement* CreateNetworkVideoElement(const VideoSource& source);

}  // namespace ktopen

#endif  // KTOPEN_NETWORK_VIDEO_H
