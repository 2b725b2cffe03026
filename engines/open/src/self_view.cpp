// Self view: the local camera's pictures before encoding, handed to the host through the same
// frame descriptor as a remote stream's. The publisher's pipeline branches them off after the
// camera's size is set (media.cpp: camtee); the branch's gate stays closed, and nothing is
// converted, while no one renders them. OnSelfSample runs on the camera queue's thread.
#include <gst/app/gstappsink.h>
#include <gst/video/video.h>

#include "media.h"

namespace ktopen {

void Publisher::RenderSelf(FrameSlot* slot, ktengine_pixel_format format, int width, int height) {
  self_.Render(slot, format, width, height);
}

void Publisher::StopSelf() { self_.Stop(); }

GstFlowReturn Publisher::OnSelfSample(GstElement* sink, gpointer self) {
  GstSample* sample = gst_app_sink_pull_sample(GST_APP_SINK(sink));
  if (!sample) return GST_FLOW_OK;
  static_cast<Publisher*>(self)->self_.Deliver(sample);
  gst_sample_unref(sample);
  return GST_FLOW_OK;
}

}  // namespace ktopen
