// The ipmprocess element in pipelines into appsink. Frames and messages are recorded under a std::mutex in
// the threads that deliver them, so that ThreadSanitizer sees every hand-over (GLib's locks are hidden).
#include <gst/app/app.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <map>
#include <thread>

#include "CIpmFuncTable.h"

namespace {

using Frames = std::vector<std::pair<GstClockTime, std::vector<uint8_t>>>;  // timestamp, packed rows

std::mutex lock;  // at namespace scope, so that no earlier use of their memory looks like a race
std::condition_variable opened;

struct Playback {
    GstElement* element = nullptr;
    bool gate = true;  // false: the output sink holds the worker until the element has seen EOS
    int slowOut = 0;   // milliseconds the output sink takes per frame
    GstClockTime lastInput = 0, seekTo = GST_CLOCK_TIME_NONE;
    std::map<std::string, Frames> frames;  // by sink: out, in, ref
    std::vector<std::string> errors;       // the element's
    int qos = 0;
    guint64 processed = 0, dropped = 0;
    gboolean leaky = FALSE;
};

GstBusSyncReply recordMessage(GstBus*, GstMessage* message, gpointer data)
{
    auto& run = *static_cast<Playback*>(data);
    GError* error = nullptr;
    std::lock_guard<std::mutex> held(lock);
    const bool mine = GST_MESSAGE_SRC(message) == GST_OBJECT(run.element);
    if (mine && GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR)
        gst_message_parse_error(message, &error, nullptr);
    if (error) run.errors.push_back(error->message), g_error_free(error);
    run.qos += mine && GST_MESSAGE_TYPE(message) == GST_MESSAGE_QOS;
    return GST_BUS_PASS;
}

// Keeps the frame's rows, whole pixel pairs for 4:2:2; the output sink may hold the worker.
GstFlowReturn keepSample(GstAppSink* sink, gpointer data)
{
    auto& run = *static_cast<Playback*>(data);
    GstSample* sample = gst_app_sink_pull_sample(sink);
    GstVideoInfo info;
    GstVideoFrame map;
    gst_video_info_from_caps(&info, gst_sample_get_caps(sample));
    gst_video_frame_map(&map, &info, gst_sample_get_buffer(sample), GST_MAP_READ);
    const int pixel = info.finfo->pixel_stride[0],
              width = pixel == 2 ? GST_ROUND_UP_2(info.width) : info.width;
    std::pair<GstClockTime, std::vector<uint8_t>> frame{GST_BUFFER_PTS(map.buffer), {}};
    for (auto* line = static_cast<uint8_t*>(map.data[0]);
         frame.second.size() < size_t(pixel * width * info.height); line += info.stride[0])
        frame.second.insert(frame.second.end(), line, line + pixel * width);
    gst_video_frame_unmap(&map);
    gst_sample_unref(sample);
    const bool out = std::string(GST_OBJECT_NAME(sink)) == "out";
    if (out) std::this_thread::sleep_for(std::chrono::milliseconds(run.slowOut));
    std::unique_lock<std::mutex> held(lock);
    EXPECT_TRUE(!out || opened.wait_for(held, std::chrono::seconds(20), [&] { return run.gate; }))
        << "blocked";
    run.frames[GST_OBJECT_NAME(sink)].push_back(std::move(frame));
    return GST_FLOW_OK;
}

// On the element's sink pad: notes each frame's timestamp and opens the gate at EOS.
GstPadProbeReturn watchInput(GstPad*, GstPadProbeInfo* info, gpointer data)
{
    auto& run = *static_cast<Playback*>(data);
    std::lock_guard<std::mutex> held(lock);
    if (info->type & GST_PAD_PROBE_TYPE_BUFFER)
        run.lastInput = GST_BUFFER_PTS(GST_PAD_PROBE_INFO_BUFFER(info));
    if (info->type & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM)
        run.gate |= GST_EVENT_TYPE(info->data) == GST_EVENT_EOS;
    opened.notify_all();
    return GST_PAD_PROBE_OK;
}

// `rounds` times: plays the pipeline until EOS or an error (first seeking, flushing, to half a second
// from seekTo when that is set) and takes it back to NULL. The counters are read at the end.
void play(Playback& run, const std::string& description, int rounds = 1)
{
    // The registry's scanner must not load a sanitizer build of the plug-in: this process loads it.
    static const bool loaded = unsetenv("GST_PLUGIN_PATH") == 0 &&
                               gst_init_check(nullptr, nullptr, nullptr) &&
                               gst_plugin_load_file(QRV_GST_PLUGIN, nullptr) != nullptr;
    ASSERT_TRUE(loaded);
    GstElement* pipeline = gst_parse_launch(description.c_str(), nullptr);
    GstElement* element = gst_bin_get_by_name(GST_BIN(pipeline), "ipm");
    gst_bus_set_sync_handler(GST_ELEMENT_BUS(pipeline), recordMessage, &run, nullptr);
    GstAppSinkCallbacks callbacks{nullptr, nullptr, keepSample, nullptr, {}};
    for (const char* name : {"out", "in", "ref"}) {
        if (GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), name))
            gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, &run, nullptr), gst_object_unref(sink);
    }
    gst_pad_add_probe(GST_PAD(element->sinkpads->data),
                      GstPadProbeType(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM),
                      watchInput, &run, nullptr);
    lock.lock(), run.element = element, lock.unlock();  // orders this set-up before the streaming threads'
    for (int round = 0; round < rounds; ++round) {
        if (GST_CLOCK_TIME_IS_VALID(run.seekTo)) {
            gst_element_set_state(pipeline, GST_STATE_PAUSED);
            EXPECT_EQ(gst_element_get_state(pipeline, nullptr, nullptr, 20 * GST_SECOND),
                      GST_STATE_CHANGE_SUCCESS);
            EXPECT_TRUE(gst_element_seek(pipeline, 1.0, GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH,
                                         GST_SEEK_TYPE_SET, run.seekTo, GST_SEEK_TYPE_SET,
                                         run.seekTo + GST_SECOND / 2));
        }
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
        GstMessage* end = gst_bus_timed_pop_filtered(GST_ELEMENT_BUS(pipeline), 20 * GST_SECOND,
                                                     GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
        EXPECT_NE(end, nullptr) << "neither EOS nor an error";
        gst_clear_message(&end);
        gst_element_set_state(pipeline, GST_STATE_NULL);
    }
    g_object_get(element, "processed", &run.processed, "dropped", &run.dropped, "leaky", &run.leaky, nullptr);
    std::lock_guard<std::mutex> held(lock);  // after every write of the threads that have ended
    gst_object_unref(element), gst_object_unref(pipeline);
}

std::string caps(const char* format, int width, int height, int fps = 10)
{
    return "video/x-raw,framerate=" + std::to_string(fps) + "/1,format=" + format +
           ",width=" + std::to_string(width) + ",height=" + std::to_string(height);
}

TEST(IpmProcessElement, PixelsEqualTheLibraryAndAgreeWithVideoconvert)
{
    // Odd widths are converted with the padding pixel of their last pair. The serial converters are
    // limited-range BT.601; the parallel ones full-range, with 6-bit weights (their mean error is 1.1).
    using B = ipmcommon::EnProcessBackend;
    using F = qrv_img::En_ImageFormat;
    const std::tuple<const char*, int, int, B, std::vector<int>> cases[] = {
        // in the order of the layouts
        {"YUY2", 64, 36, B::CPU_Parallel, {0}},
        {"UYVY", 63, 17, B::CPU_Serial, {1}},
        {"YVYU", 30, 11, B::CPU_Serial, {0}},
        {"VYUY", 67, 9, B::CPU_Parallel, {0, 2}}};
    for (int layout = 0; layout < 4; ++layout) {
        const auto& [format, width, height, backend, indices] = cases[layout];
        const bool serial = backend == B::CPU_Serial;
        std::string steps;
        for (int index : indices)
            steps += (serial ? ";CPU Serial/Converter/" : ";CPU Parallel/Converter/") + std::to_string(index);
        Playback run;
        play(run, "videotestsrc num-buffers=1 pattern=smpte75 ! " + caps(format, width, height) +
                      ",colorimetry=" + (serial ? "bt601" : "1:4:0:0") +
                      " ! tee name=t ! queue ! ipmprocess name=ipm steps=\"" + steps.substr(1) +
                      "\" ! appsink name=out t. ! queue ! appsink name=in t. ! queue ! videoconvert "
                      "chroma-mode=none dither=none ! video/x-raw,format=" +
                      (indices[0] == 1 ? "BGRA64_LE" : "RGBA64_LE") + " ! appsink name=ref");
        ASSERT_EQ(run.frames["out"].size(), 1u) << format;
        const auto &in = run.frames["in"][0].second, &out = run.frames["out"][0].second,
                   &ref = run.frames["ref"][0].second;
        std::vector<qrv_img::QRV_Image> images(1 + indices.size());
        images[0] = qrv_img::QRV_Image(GST_ROUND_UP_2(width), height, F::YUV422_8, true, 1);
        images[0].yuvLayout = static_cast<int32_t>(qrv_img::En_YuvLayout::YUYV) + layout;
        std::copy(in.begin(), in.end(), images[0].data.get());
        for (size_t i = 1; i < images.size(); ++i) {
            images[i] =
                qrv_img::QRV_Image(images[0].width, height,
                                   std::vector{F::RGB888, F::BGR888, F::Gray8}[indices[i - 1]], true, 1);
            ASSERT_EQ(ipmcommon::CIpmFuncTable::Instance()->process(
                          backend, ipmcommon::EnIpmModule::Converter, indices[i - 1], &images[i - 1],
                          &images[i], nullptr, nullptr),
                      1);
        }
        const size_t pixel = qrv_img::bytesPerPixel(images.back().format), rowBytes = pixel * width;
        ASSERT_EQ(out.size(), rowBytes * height) << format;
        for (int row = 0; row < height; ++row) {
            const uint8_t* line = images.back().data.get() + row * pixel * images[0].width;
            ASSERT_TRUE(std::equal(line, line + rowBytes, &out[row * rowBytes])) << format << " row " << row;
        }
        int worst = 0, sum = 0;  // against videoconvert's 16-bit output: its 8-bit one is off by 2 itself
        for (size_t b = 0, at = 0; indices.size() == 1 && b < out.size();
             ++b, at = 8 * (b / 3) + 2 * (b % 3)) {
            const int error = std::abs(out[b] - (ref[at] + 256 * ref[at + 1] + 128) / 257);
            worst = std::max(worst, error), sum += error;
        }
        EXPECT_LE(worst, 3) << format;
        EXPECT_TRUE(!serial || sum <= static_cast<int>(out.size())) << format << " total " << sum;
    }
}

TEST(IpmProcessElement, LosslessDeliversEveryFrameInOrderAcrossRestarts)
{
    Playback run;
    run.slowOut = 3;  // upstream outpaces the pass: it has to wait for every frame
    play(run,
         "videotestsrc num-buffers=12 ! " + caps("UYVY", 32, 8) +
             " ! ipmprocess name=ipm ! appsink name=out sync=false",
         3);
    ASSERT_EQ(run.frames["out"].size(), 36u);
    for (size_t i = 0; i < 36; ++i) EXPECT_EQ(run.frames["out"][i].first, i % 12 * GST_SECOND / 10);
    EXPECT_EQ(std::pair(run.processed, run.dropped), (std::pair<guint64, guint64>(12, 0)));
    EXPECT_FALSE(run.leaky) << "the default for a source that is not live";
}

TEST(IpmProcessElement, LeakyDropsWhileAPassRunsWithoutBlockingTheSourceAndDeliversTheNewest)
{
    Playback run;
    run.gate = false;
    play(run, "videotestsrc is-live=true num-buffers=20 ! " + caps("YUY2", 32, 8, 100) +
                  " ! ipmprocess name=ipm ! appsink name=out sync=false");
    EXPECT_TRUE(run.leaky) << "the default for a live source";
    const auto& frames = run.frames["out"];
    ASSERT_TRUE(frames.size() == 1 || frames.size() == 2);  // the pass the sink held, then the newest frame
    EXPECT_EQ(frames.back().first, run.lastInput);
    EXPECT_EQ(std::pair(run.processed, run.dropped),
              (std::pair<guint64, guint64>(frames.size(), 20 - frames.size())));
    EXPECT_GE(run.qos, 1);
}

TEST(IpmProcessElement, RenegotiatesSizeAndLayoutMidStreamAndFlushes)
{
    // Grey in two layouts, one after the other: read in the other byte order, it would be coloured.
    const std::string grey = "videotestsrc num-buffers=2 pattern=solid-color foreground-color=0xff505050 ! ";
    Playback run, seeking;
    play(run,
         grey + caps("YUY2", 32, 5) +
             " ! concat name=c ! ipmprocess name=ipm steps=\"CPU Serial/Converter/0\" ! appsink name=out " +
             grey + caps("UYVY", 18, 6) + " ! c.");
    ASSERT_EQ(run.frames["out"].size(), 4u);
    for (size_t i = 0; i < 4; ++i)
        EXPECT_EQ(run.frames["out"][i].second, std::vector<uint8_t>(i < 2 ? 3 * 32 * 5 : 3 * 18 * 6, 0x50));
    seeking.seekTo = GST_SECOND;
    play(seeking,
         "videotestsrc ! " + caps("YVYU", 32, 8) + " ! ipmprocess name=ipm ! appsink name=out sync=false");
    ASSERT_EQ(seeking.frames["out"].size(), 5u) << "the frames from 1 s to 1.5 s";
    for (size_t i = 0; i < 5; ++i) EXPECT_EQ(seeking.frames["out"][i].first, (10 + i) * GST_SECOND / 10);
}

TEST(IpmProcessElement, BadSettingsPostOneClearError)
{
    const std::tuple<const char*, int, int, const char*> cases[] = {
        {"CPU Fast/Converter/0", -1, 64, "unknown backend 'CPU Fast' in step 'CPU Fast/Converter/0'"},
        {"CPU Serial/Converter/7", -1, 64, "no function at CPU Serial/Converter/7"},
        {"CPU Serial/Converter/0;CPU Serial/Converter/2", 2, 64, "output-step 2 is not a step"},
        {"CPU Parallel/Converter/0", -1, 62, "step 'CPU Parallel/Converter/0' cannot take 62x8 YUY2 frames"},
        {"CPU Serial/Converter/2", -1, 64, "step 'CPU Serial/Converter/2' cannot take 64x8 YUY2 frames"}};
    for (const auto& [steps, outputStep, width, says] : cases) {
        Playback run;
        play(run, "videotestsrc num-buffers=2 ! " + caps("YUY2", width, 8) +
                      " ! ipmprocess name=ipm steps=\"" + steps +
                      "\" output-step=" + std::to_string(outputStep) + " ! appsink name=out");
        ASSERT_EQ(run.errors.size(), 1u) << steps;
        EXPECT_NE(run.errors[0].find(says), std::string::npos) << run.errors[0];
        EXPECT_TRUE(run.frames["out"].empty());
    }
}

}  // namespace
