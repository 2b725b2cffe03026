// Self view: the local camera's pictures before encoding, handed to the host through the same
// frame descriptor as a remote stream's. The publisher's pipeline branches them off after the
// camera's size is set (media.cpp: camtee); the branch's gate stays closed, and nothing is
// converted, while no one renders them. OnSelfSample runs on the camera queue's thread.
#include <gst/app/gstappsink.h>
#include <gst/video/video.h>

#include "media.h"

namespace ktopen {

void Publisher::RenderSelf(FrameSlot* slot, ktengine_pixel_format format, int width, int height) {
  std::lock_guard<std::mutex> lock(self_mutex_);
  self_slot_ = slot;
  self_format_ = format;
  self_width_ = width;
  self_height_ = height;
  ApplySelf();
}

void Publisher::StopSelf() {
  std::lock_guard<std::mutex> lock(self_mutex_);
  self_slot_ = nullptr;
  ApplySelf();
}

void Publisher::ApplySelf() {
  if (!pipeline_) return;
  GstElement* gate = gst_bin_get_by_name(GST_BIN(pipeline_), "selfgate");
  GstElement* size = gst_bin_get_by_name(GST_BIN(pipeline_), "selfsize");
  if (gate && size && self_slot_) {
    GstCaps* caps =
        gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING,
                            gst_video_format_to_string(VideoFormat(self_format_)), "width",
                            G_TYPE_INT, self_width_, "height", G_TYPE_INT, self_height_, nullptr);
    g_object_set(size, "caps", caps, nullptr);
    gst_caps_unref(caps);
  }
  if (gate) g_object_set(gate, "drop", self_slot_ == nullptr, nullptr);
  if (gate) gst_object_unref(gate);
  if (size) gst_object_unref(size);
}

GstFlowReturn Publisher::OnSelfSample(GstElement* sink, gpointer self) {
  auto* publisher = static_cast<Publisher*>(self);
  GstSample* sample = gst_app_sink_pull_sample(GST_APP_SINK(sink));
  if (!sample) return GST_FLOW_OK;
  GstVideoInfo info;
  GstMapInfo map;
  GstBuffer* buffer = gst_sample_get_buffer(sample);
  if (gst_video_info_from_caps(&info, gst_sample_get_caps(sample)) &&
      gst_buffer_map(buffer, &map, GST_MAP_READ)) {
    std::lock_guard<std::mutex> lock(publisher->self_mutex_);
    // A picture still in the format of an earlier request is not the host's.
    if (publisher->self_slot_ &&
        GST_VIDEO_INFO_FORMAT(&info) == VideoFormat(publisher->self_format_)) {
      publisher->self_slot_->Offer(map.data, GST_VIDEO_INFO_WIDTH(&info),
                                   GST_VIDEO_INFO_HEIGHT(&info),
                                   GST_VIDEO_INFO_PLANE_STRIDE(&info, 0));
    }
    gst_buffer_unmap(buffer, &map);
  }
  gst_sample_unref(sample);
  return GST_FLOW_OK;
}

}  // namespace ktopen
