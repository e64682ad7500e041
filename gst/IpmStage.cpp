#include "IpmStage.h"

#include <algorithm>
#include <cstring>

#include "CIpmFuncTable.h"
#include "Converter/CConverter.h"

using ipmcommon::CIpmFuncTable;
using qrv_img::En_ImageFormat;
using qrv_img::En_YuvLayout;
using qrv_img::QRV_Image;

namespace {

En_YuvLayout layoutOf(GstVideoFormat format)
{
    switch (format) {
    case GST_VIDEO_FORMAT_UYVY: return En_YuvLayout::UYVY;
    case GST_VIDEO_FORMAT_YVYU: return En_YuvLayout::YVYU;
    case GST_VIDEO_FORMAT_VYUY: return En_YuvLayout::VYUY;
    default: return En_YuvLayout::YUYV;
    }
}

// Copies `rows` rows of `rowBytes` bytes between buffers of different strides.
void copyRows(const uint8_t* from, size_t fromStride, uint8_t* to, size_t toStride, size_t rowBytes,
              size_t rows)
{
    for (size_t row = 0; row < rows; ++row)
        std::memcpy(to + row * toStride, from + row * fromStride, rowBytes);
}

}  // namespace

GstVideoFormat IpmStage::videoFormatOf(En_ImageFormat format)
{
    switch (format) {
    case En_ImageFormat::BGR888: return GST_VIDEO_FORMAT_BGR;
    case En_ImageFormat::Gray8: return GST_VIDEO_FORMAT_GRAY8;
    default: return GST_VIDEO_FORMAT_RGB;
    }
}

IpmStage::IpmStage(GstElement* element, GstPad* srcPad, Counters& counters)
    : element_(element), srcPad_(srcPad), counters_(counters)
{
    gst_segment_init(&segment_, GST_FORMAT_TIME);
}

bool IpmStage::start(const StepList& list, const GstVideoInfo& input, std::string& error)
{
    input_ = input;
    // A packed 4:2:2 row always holds whole pixel pairs: an odd width is
    // converted with the padding pixel of its last pair, which is cropped
    // again on output.
    const uint32_t width = GST_ROUND_UP_2(GST_VIDEO_INFO_WIDTH(&input));
    const uint32_t height = GST_VIDEO_INFO_HEIGHT(&input);
    const En_YuvLayout layout = layoutOf(GST_VIDEO_INFO_FORMAT(&input));
    if (!ProcessingPlan::build(list.steps, width, height, layout, ProcessingPlan::lookUpRegistered, plan_,
                               error)) {
        return false;
    }
    outputPosition_ = list.outputPosition;
    auto& steps = plan_.steps();
    for (size_t i = 0; i < steps.size(); ++i) {
        const StepArgument& step = steps[i].argument;
        const QRV_Image* source = plan_.sourceFor(i) ? plan_.sourceFor(i) : steps[i - 1].destination.get();
        const int result = CIpmFuncTable::Instance()->process(step.backend, step.module, step.index, source,
                                                              steps[i].destination.get(), nullptr, nullptr);
        if (result != ipmcommon::result::Success) {
            error = "step '" + step.text + "' cannot take " + std::to_string(GST_VIDEO_INFO_WIDTH(&input)) +
                    "x" + std::to_string(height) + " " + GST_VIDEO_INFO_NAME(&input) + " frames (result " +
                    std::to_string(result) + ")";
            return false;
        }
    }

    frame_ = QRV_Image(width, height, En_ImageFormat::YUV422_8, true, 1);
    frame_.yuvLayout = static_cast<int32_t>(layout);
    gst_video_info_set_format(&output_, videoFormatOf(list.outputFormat), GST_VIDEO_INFO_WIDTH(&input),
                              height);
    GST_VIDEO_INFO_FPS_N(&output_) = GST_VIDEO_INFO_FPS_N(&input);
    GST_VIDEO_INFO_FPS_D(&output_) = GST_VIDEO_INFO_FPS_D(&input);
    GST_VIDEO_INFO_PAR_N(&output_) = GST_VIDEO_INFO_PAR_N(&input);
    GST_VIDEO_INFO_PAR_D(&output_) = GST_VIDEO_INFO_PAR_D(&input);

    for (size_t i = 0; i < steps.size(); ++i) {
        const StepArgument& step = steps[i].argument;
        manager_.addProcList(step.backend, step.module, step.index, plan_.sourceFor(i),
                             steps[i].destination.get(), nullptr, nullptr);
    }
    manager_.addProcList(ipmcommon::EnProcessBackend::CPU_Serial, ipmcommon::EnIpmModule::Converter,
                         static_cast<int>(CConverter::Ipm_Converter_Func::RGB888_To_Gray8), &markerSource_,
                         &markerDestination_, nullptr, nullptr);
    const size_t markerPosition = steps.size();
    manager_.registerDisplayerCallback(
        [this, markerPosition](int tag, int position, const QRV_Image& destination) {
            if (static_cast<size_t>(position) == outputPosition_) pushOutput_(tag, destination);
            if (static_cast<size_t>(position) == markerPosition) endPass_(tag);
        });
    manager_.initialize();
    return true;
}

GstFlowReturn IpmStage::submit(GstBuffer* buffer, bool leaky)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (flushing_) return GST_FLOW_FLUSHING;
    }
    GstVideoFrame in;
    if (!gst_video_frame_map(&in, &input_, buffer, GST_MAP_READ)) return GST_FLOW_ERROR;
    copyRows(static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&in, 0)),
             GST_VIDEO_FRAME_PLANE_STRIDE(&in, 0), frame_.data.get() + frame_.dataOffset, 2 * frame_.width,
             2 * frame_.width, frame_.height);
    gst_video_frame_unmap(&in);

    int32_t tag;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        tag = ++delivered_;
        pending_.push_back({tag, GST_BUFFER_PTS(buffer), GST_BUFFER_DTS(buffer), GST_BUFFER_DURATION(buffer),
                            GST_BUFFER_OFFSET(buffer), GST_BUFFER_OFFSET_END(buffer)});
    }
    frame_.frameTag = tag;
    manager_.onNewFrame(frame_);

    std::unique_lock<std::mutex> lock(mutex_);
    if (!leaky) passEnded_.wait(lock, [&] { return passed_ >= tag || flushing_; });
    return flushing_ ? GST_FLOW_FLUSHING : flow_;
}

void IpmStage::drain()
{
    std::unique_lock<std::mutex> lock(mutex_);
    passEnded_.wait(lock, [&] { return passed_ >= delivered_ || flushing_; });
}

void IpmStage::setSegment(const GstSegment& segment)
{
    std::lock_guard<std::mutex> lock(mutex_);
    segment_ = segment;
}

void IpmStage::setFlushing()
{
    std::lock_guard<std::mutex> lock(mutex_);
    flushing_ = true;
    passEnded_.notify_all();
}

void IpmStage::restartAfterFlush()
{
    manager_.stop();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        // A frame still buffered in the manager gets its pass after the
        // restart, but nothing of it goes downstream.
        discardUpTo_ = passed_ = delivered_;
        pending_.clear();
        flushing_ = false;
        flow_ = GST_FLOW_OK;
    }
    manager_.run();
}

void IpmStage::pushOutput_(int32_t tag, const QRV_Image& destination)
{
    FrameTimes times;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found =
            std::find_if(pending_.begin(), pending_.end(), [&](const auto& t) { return t.tag == tag; });
        if (tag <= discardUpTo_ || found == pending_.end()) return;
        times = *found;
    }
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&output_), nullptr);
    GstVideoFrame out;
    gst_video_frame_map(&out, &output_, buffer, GST_MAP_WRITE);
    const size_t pixelBytes = qrv_img::bytesPerPixel(destination.format);
    copyRows(destination.data.get() + destination.dataOffset, pixelBytes * destination.width,
             static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&out, 0)),
             GST_VIDEO_FRAME_PLANE_STRIDE(&out, 0), pixelBytes * GST_VIDEO_INFO_WIDTH(&output_),
             destination.height);
    gst_video_frame_unmap(&out);
    GST_BUFFER_PTS(buffer) = times.pts;
    GST_BUFFER_DTS(buffer) = times.dts;
    GST_BUFFER_DURATION(buffer) = times.duration;
    GST_BUFFER_OFFSET(buffer) = times.offset;
    GST_BUFFER_OFFSET_END(buffer) = times.offsetEnd;
    ++counters_.processed;
    const GstFlowReturn flow = gst_pad_push(srcPad_, buffer);
    std::lock_guard<std::mutex> lock(mutex_);
    flow_ = flow;
}

void IpmStage::endPass_(int32_t tag)
{
    guint64 dropped = 0;
    FrameTimes lastDropped{};
    GstClockTime runningTime, streamTime;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (; !pending_.empty() && pending_.front().tag <= tag; pending_.pop_front()) {
            if (pending_.front().tag == tag) continue;
            ++dropped;
            lastDropped = pending_.front();
        }
        runningTime = gst_segment_to_running_time(&segment_, GST_FORMAT_TIME, lastDropped.pts);
        streamTime = gst_segment_to_stream_time(&segment_, GST_FORMAT_TIME, lastDropped.pts);
    }
    if (dropped != 0) {
        counters_.dropped += dropped;
        // Only leaky mode drops, and it is the mode for live sources.
        GstMessage* qos = gst_message_new_qos(GST_OBJECT(element_), TRUE, runningTime, streamTime,
                                              lastDropped.pts, lastDropped.duration);
        gst_message_set_qos_stats(qos, GST_FORMAT_BUFFERS, counters_.processed, counters_.dropped);
        gst_element_post_message(element_, qos);
    }
    // Last, so that an event waiting for this pass follows its QoS message.
    std::lock_guard<std::mutex> lock(mutex_);
    passed_ = std::max(passed_, tag);
    passEnded_.notify_all();
}
