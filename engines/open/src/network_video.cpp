#include "network_video.h"

#include <gst/pbutils/pbutils.h>

#include <algorithm>

namespace ktopen {

namespace {

constexpr GstClockTime kProbeLimit = 5 * GST_SECOND;

bool StartsWith(const std::string& text, const char* prefix) {
  return text.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

}  // namespace

bool SourceUri(const std::string& url, std::string* uri, std::string* error) {
  if (!url.empty() && url[0] == '/') {
    gchar* converted = gst_filename_to_uri(url.c_str(), nullptr);
    if (!converted) {
      *error = "Cannot read network video source '" + url + "': not a usable path";
      return false;
    }
    *uri = converted;
    g_free(converted);
    return true;
  }
  for (const char* scheme : {"file://", "http://", "https://", "rtsp://"}) {
    if (StartsWith(url, scheme)) {
      *uri = url;
      return true;
    }
  }
  *error = "Unsupported network video source '" + url +
           "' (a file path or a file, http, https or rtsp URL)";
  return false;
}

bool ProbeVideoSource(const std::string& url, VideoSource* source, std::string* error) {
  if (!SourceUri(url, &source->uri, error)) return false;
  GError* problem = nullptr;
  GstDiscoverer* discoverer = gst_discoverer_new(kProbeLimit, &problem);
  if (!discoverer) {
    *error = std::string("Cannot read network video: ") + (problem ? problem->message : "");
    if (problem) g_error_free(problem);
    return false;
  }
  GstDiscovererInfo* info = gst_discoverer_discover_uri(discoverer, source->uri.c_str(), &problem);
  const GstDiscovererResult result =
      info ? gst_discoverer_info_get_result(info) : GST_DISCOVERER_ERROR;
  bool ok = false;
  if (result != GST_DISCOVERER_OK) {
    const std::string why = problem && problem->message                ? problem->message
                            : result == GST_DISCOVERER_TIMEOUT         ? "no answer in time"
                            : result == GST_DISCOVERER_MISSING_PLUGINS ? "no decoder for it"
                                                                       : "unreadable";
    *error = "Cannot read network video source '" + url + "': " + why;
  } else {
    GList* videos = gst_discoverer_info_get_video_streams(info);
    if (!videos) {
      *error = "Network video source '" + url + "' holds no video";
    } else {
      auto* video = static_cast<GstDiscovererVideoInfo*>(videos->data);
      source->width = static_cast<int>(gst_discoverer_video_info_get_width(video));
      source->height = static_cast<int>(gst_discoverer_video_info_get_height(video));
      source->live = gst_discoverer_info_get_live(info);
      ok = true;
    }
    gst_discoverer_stream_info_list_free(videos);
  }
  if (problem) g_error_free(problem);
  if (info) gst_discoverer_info_unref(info);
  g_object_unref(discoverer);
  return ok;
}

void NetworkVideoSentSize(int width, int height, int* sent_width, int* sent_height) {
  if (width < 2 || height < 2) width = 640, height = 480;
  const double fit = std::min({1.0, 1280.0 / width, 720.0 / height});
  *sent_width = std::max(2, static_cast<int>(width * fit) & ~1);
  *sent_height = std::max(2, static_cast<int>(height * fit) & ~1);
}

GstElement* CreateNetworkVideoElement(const VideoSource& source) {
  GstElement* bin = gst_bin_new(nullptr);
  GstElement* decode = gst_element_factory_make("uridecodebin", nullptr);
  GstElement* convert = gst_element_factory_make("videoconvert", nullptr);
  if (!bin || !decode || !convert) {
    for (GstElement* e : {bin, decode, convert}) {
      if (e) gst_object_unref(gst_object_ref_sink(e));
    }
    return nullptr;
  }
  // Only the video is decoded: streams that do not end as raw video are not exposed.
  GstCaps* video = gst_caps_from_string("video/x-raw(ANY)");
  g_object_set(decode, "uri", source.uri.c_str(), "caps", video, "expose-all-streams", FALSE,
               nullptr);
  gst_caps_unref(video);
  gst_bin_add_many(GST_BIN(bin), decode, convert, nullptr);
  g_signal_connect(decode, "pad-added", G_CALLBACK(+[](GstElement*, GstPad* pad, gpointer sink) {
                     GstPad* target = gst_element_get_static_pad(GST_ELEMENT(sink), "sink");
                     if (!gst_pad_is_linked(target)) gst_pad_link(pad, target);
                     gst_object_unref(target);
                   }),
                   convert);
  GstPad* out = gst_element_get_static_pad(convert, "src");
  gst_element_add_pad(bin, gst_ghost_pad_new("src", out));
  gst_object_unref(out);
  return bin;
}

}  // namespace ktopen
