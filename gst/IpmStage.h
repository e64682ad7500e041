// One negotiated stream of the ipmprocess element: a CImageProcessMng running
// the element's processing list on frames of one size and layout.
//
// The streaming thread hands every frame to the manager and, in lossless mode,
// waits until the pass for it has ended; in leaky mode it returns at once and
// frames that arrive during a pass replace one another, as in the manager. The
// manager's worker pushes the output step's destination downstream from the
// displayer callback. A last step on two private pixels reports the end of
// every pass, whether or not the steps before it succeeded, which is what
// lossless mode, draining and the drop count wait for.
#pragma once

#include <gst/video/video.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>

#include "CImageProcessMng.h"
#include "ProcessingPlan.h"
#include "StepList.h"

class IpmStage {
public:
    struct Counters {
        std::atomic<guint64> processed{0};  // frames whose output went downstream
        std::atomic<guint64> dropped{0};    // frames replaced by newer ones before a pass took them
    };

    // The caps format of a destination format (RGB888, BGR888 or Gray8).
    static GstVideoFormat videoFormatOf(qrv_img::En_ImageFormat format);

    // The element and its source pad outlive the stage.
    IpmStage(GstElement* element, GstPad* srcPad, Counters& counters);
    IpmStage(const IpmStage&) = delete;
    IpmStage& operator=(const IpmStage&) = delete;

    // Builds the list for frames described by `input`, runs it once on a
    // blank frame to see that every step takes such frames, and starts the
    // manager. False with a one-line message when a step refuses them.
    bool start(const StepList& list, const GstVideoInfo& input, std::string& error);
    const GstVideoInfo& input() const { return input_; }
    const GstVideoInfo& output() const { return output_; }

    // Streaming thread: hands the frame over; the result is the outcome of the
    // latest push downstream, or FLUSHING.
    GstFlowReturn submit(GstBuffer* buffer, bool leaky);
    // Streaming thread: waits until every frame handed over has had its pass
    // or was replaced, so that an event cannot overtake them.
    void drain();
    void setSegment(const GstSegment& segment);

    // Any thread: releases every wait; frames are refused until the restart.
    void setFlushing();
    // Streaming thread, at flush-stop: waits for the pass in flight, forgets
    // the frames not yet pushed and accepts frames again.
    void restartAfterFlush();

private:
    struct FrameTimes {
        int32_t tag;
        GstClockTime pts, dts, duration;
        guint64 offset, offsetEnd;
    };

    void pushOutput_(int32_t tag, const qrv_img::QRV_Image& destination);
    void endPass_(int32_t tag);

    GstElement* element_;
    GstPad* srcPad_;
    Counters& counters_;
    GstVideoInfo input_{};
    GstVideoInfo output_{};
    ProcessingPlan plan_;
    size_t outputPosition_ = 0;
    qrv_img::QRV_Image frame_;  // the frame as the library sees it; streaming thread only
    qrv_img::QRV_Image markerSource_{2, 1, qrv_img::En_ImageFormat::RGB888, true, 1};
    qrv_img::QRV_Image markerDestination_{2, 1, qrv_img::En_ImageFormat::Gray8, true, 1};

    std::mutex mutex_;
    std::condition_variable passEnded_;
    int32_t delivered_ = -1;    // tag of the latest frame handed over
    int32_t passed_ = -1;       // tag of the latest frame whose pass ended
    int32_t discardUpTo_ = -1;  // frames up to this tag were flushed
    bool flushing_ = false;
    GstFlowReturn flow_ = GST_FLOW_OK;
    std::deque<FrameTimes> pending_;  // frames handed over whose pass has not ended
    GstSegment segment_{};

    // Last, so that it is destroyed first: its destructor ends the worker,
    // which uses everything above.
    CImageProcessMng manager_;
};
