// A further video stream's sending pipeline: the source, then the camera's sending chain (size
// and rate fixed, a leaky two-picture queue, VP8 in real-time mode) into webrtcbin.
#include "stream_publisher.h"

#include <cstdio>

namespace ktopen {

namespace {
constexpr guint kStreamSsrc = 0x4b540003;
}  // namespace

bool StreamPublisher::Start(GstElement* source, int width, int height, int fps, bool paced,
                            std::function<void()> ended, std::string* error) {
  if (!source) {
    if (error) *error = "Could not open the video source";
    return false;
  }
  gst_object_ref_sink(source);
  ended_ = std::move(ended);
  if (!Setup(error)) {
    gst_object_unref(source);
    return false;
  }
  // A still screen costs little: unchanged macroblocks are skipped (static-threshold).
  char description[1024];
  std::snprintf(
      description, sizeof description,
      "%s videoconvert ! videoscale ! videorate ! "
      "video/x-raw,format=I420,width=%d,height=%d,framerate=%d/1 ! "
      "queue leaky=downstream max-size-buffers=2 max-size-bytes=0 max-size-time=0 ! "
      "vp8enc deadline=1 threads=1 cpu-used=16 static-threshold=100 target-bitrate=800000 "
      "keyframe-max-dist=%d ! rtpvp8pay pt=96 ! "
      "application/x-rtp,media=video,encoding-name=VP8,payload=96,clock-rate=90000,"
      "ssrc=(uint)%u ! identity name=to_webrtc",
      paced ? "clocksync name=pace !" : "identity name=pace !", width, height, fps, fps * 2,
      kStreamSsrc);
  GError* problem = nullptr;
  GstElement* chain = gst_parse_bin_from_description(description, FALSE, &problem);
  if (!chain) {
    if (error) *error = std::string("Could not build the sending pipeline: ") + problem->message;
    g_error_free(problem);
    gst_object_unref(source);
    return false;
  }
  gst_bin_add_many(GST_BIN(pipeline_), source, chain, nullptr);
  GstElement* first = gst_bin_get_by_name(GST_BIN(chain), "pace");
  GstPad* first_sink = gst_element_get_static_pad(first, "sink");
  gst_element_add_pad(chain, gst_ghost_pad_new("sink", first_sink));
  GstElement* last = gst_bin_get_by_name(GST_BIN(chain), "to_webrtc");
  GstPad* last_src = gst_element_get_static_pad(last, "src");
  GstPad* ghost = gst_ghost_pad_new("src", last_src);
  gst_element_add_pad(chain, ghost);
  GstPad* webrtc_sink = gst_element_request_pad_simple(webrtc_, "sink_%u");
  const bool linked = gst_pad_link(ghost, webrtc_sink) == GST_PAD_LINK_OK &&
                      gst_element_link_pads(source, "src", chain, "sink");
  GstPad* source_src = gst_element_get_static_pad(source, "src");
  if (source_src) {
    gst_pad_add_probe(source_src, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM,
                      &StreamPublisher::OnSourceEvent, this, nullptr);
    gst_object_unref(source_src);
  }
  for (GstObject* o : {GST_OBJECT(first_sink), GST_OBJECT(first), GST_OBJECT(last_src),
                       GST_OBJECT(last), GST_OBJECT(webrtc_sink)}) {
    gst_object_unref(o);
  }
  if (!linked) {
    if (error) *error = "Could not link the video source";
    return false;
  }
  return Play(error);
}

GstPadProbeReturn StreamPublisher::OnSourceEvent(GstPad*, GstPadProbeInfo* info, gpointer self) {
  auto* publisher = static_cast<StreamPublisher*>(self);
  if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_EOS && !publisher->stopped_ &&
      publisher->ended_) {
    publisher->ended_();
  }
  return GST_PAD_PROBE_OK;
}

}  // namespace ktopen
