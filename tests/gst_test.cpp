// The ipmprocess element in pipelines into appsink. Frames and bus messages are recorded under a
// std::mutex in the threads that deliver them, so that ThreadSanitizer sees every hand-over (GLib's
// own locks are invisible to it).
#include <gst/app/app.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <thread>

#include "CIpmFuncTable.h"

using B = ipmcommon::EnProcessBackend;
using F = qrv_img::En_ImageFormat;

namespace {

struct Playback {
    std::mutex lock;
    std::condition_variable opened;
    bool gate = true;  // false: the output sink holds the worker until the element has seen EOS
    int slowOut = 0;   // milliseconds the output sink takes per frame
    GstClockTime lastInput = 0;
    std::map<std::string, std::vector<std::pair<GstClockTime, std::vector<uint8_t>>>> frames;  // pts, rows
    std::vector<std::string> errors;  // the element's
    int qos = 0;
    guint64 processed = 0, dropped = 0;
    gboolean leaky = FALSE;
};

GstBusSyncReply recordMessage(GstBus*, GstMessage* message, gpointer data)
{
    auto& run = *static_cast<Playback*>(data);
    GError* error = nullptr;
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) gst_message_parse_error(message, &error, nullptr);
    std::lock_guard<std::mutex> lock(run.lock);
    const bool fromElement = std::string(GST_OBJECT_NAME(GST_MESSAGE_SRC(message))) == "ipm";
    if (fromElement && error) run.errors.push_back(error->message);
    run.qos += fromElement && GST_MESSAGE_TYPE(message) == GST_MESSAGE_QOS;
    g_clear_error(&error);
    return GST_BUS_PASS;
}

// Keeps the frame's packed rows (whole pixel pairs for 4:2:2); the output sink may hold the worker.
GstFlowReturn keepSample(GstAppSink* sink, gpointer data)
{
    auto& run = *static_cast<Playback*>(data);
    GstSample* sample = gst_app_sink_pull_sample(sink);
    GstVideoInfo info;
    GstVideoFrame map;
    gst_video_info_from_caps(&info, gst_sample_get_caps(sample));
    gst_video_frame_map(&map, &info, gst_sample_get_buffer(sample), GST_MAP_READ);
    const int pixel = GST_VIDEO_INFO_COMP_PSTRIDE(&info, 0);
    std::pair<GstClockTime, std::vector<uint8_t>> frame{GST_BUFFER_PTS(map.buffer), {}};
    for (int row = 0; row < info.height; ++row) {
        const auto* line = static_cast<uint8_t*>(map.data[0]) + row * info.stride[0];
        frame.second.insert(frame.second.end(), line,
                            line + pixel * (pixel == 2 ? GST_ROUND_UP_2(info.width) : info.width));
    }
    gst_video_frame_unmap(&map);
    gst_sample_unref(sample);
    const std::string name = GST_OBJECT_NAME(sink);
    if (name == "out") std::this_thread::sleep_for(std::chrono::milliseconds(run.slowOut));
    std::unique_lock<std::mutex> lock(run.lock);
    const auto gateOpen = [&] { return run.gate; };
    if (name == "out" && !run.opened.wait_for(lock, std::chrono::seconds(20), gateOpen))
        ADD_FAILURE() << "blocked";
    run.frames[name].push_back(std::move(frame));
    return GST_FLOW_OK;
}

// On the element's sink pad: notes each frame's timestamp and opens the gate at EOS.
GstPadProbeReturn watchInput(GstPad*, GstPadProbeInfo* info, gpointer data)
{
    auto& run = *static_cast<Playback*>(data);
    std::lock_guard<std::mutex> lock(run.lock);
    if (info->type & GST_PAD_PROBE_TYPE_BUFFER)
        run.lastInput = GST_BUFFER_PTS(GST_PAD_PROBE_INFO_BUFFER(info));
    if (info->type & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM)
        run.gate |= GST_EVENT_TYPE(info->data) == GST_EVENT_EOS;
    run.opened.notify_all();
    return GST_PAD_PROBE_OK;
}

// Builds the pipeline, lets `prepare` act on it, then `rounds` times plays it until EOS or an error
// and takes it back to NULL; the counters are read at the end.
void play(Playback& run, const std::string& description, std::function<void(GstElement*)> prepare = {},
          int rounds = 1)
{
    static const bool loaded = [] {
        unsetenv(
            "GST_PLUGIN_PATH");  // the registry's scanner must not load a sanitizer build; this process does
        gst_init(nullptr, nullptr);
        return gst_plugin_load_file(QRV_GST_PLUGIN, nullptr) != nullptr;
    }();
    ASSERT_TRUE(loaded);
    GstElement* pipeline = gst_parse_launch(description.c_str(), nullptr);
    GstElement* element = gst_bin_get_by_name(GST_BIN(pipeline), "ipm");
    gst_bus_set_sync_handler(GST_ELEMENT_BUS(pipeline), recordMessage, &run, nullptr);
    GstAppSinkCallbacks callbacks{nullptr, nullptr, keepSample, nullptr, {}};
    for (const char* name : {"out", "in", "ref"}) {
        if (GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), name)) {
            gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, &run, nullptr);
            gst_object_unref(sink);
        }
    }
    const auto probed = GstPadProbeType(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM);
    gst_pad_add_probe(GST_PAD(element->sinkpads->data), probed, watchInput, &run, nullptr);
    if (prepare) prepare(pipeline);
    for (int round = 0; round < rounds; ++round) {
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
        const auto ends = GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR);
        GstMessage* end = gst_bus_timed_pop_filtered(GST_ELEMENT_BUS(pipeline), 20 * GST_SECOND, ends);
        EXPECT_NE(end, nullptr) << "neither EOS nor an error";
        gst_clear_message(&end);
        gst_element_set_state(pipeline, GST_STATE_NULL);
    }
    std::lock_guard<std::mutex> lock(run.lock);  // after every write of the threads that have ended
    g_object_get(element, "processed", &run.processed, "dropped", &run.dropped, "leaky", &run.leaky, nullptr);
    gst_object_unref(element);
    gst_object_unref(pipeline);
}

std::string caps(const char* format, int width, int height, int fps = 10)
{
    return "video/x-raw,format=" + std::string(format) + ",width=" + std::to_string(width) +
           ",height=" + std::to_string(height) + ",framerate=" + std::to_string(fps) + "/1";
}

TEST(IpmProcessElement, PixelsEqualTheLibraryAndAgreeWithVideoconvert)
{
    // Odd widths are converted with the padding pixel of their last pair. The serial converters are
    // limited-range BT.601; the parallel ones full-range, with 6-bit weights (their mean error is 1.1).
    const struct {
        const char* format;
        qrv_img::En_YuvLayout layout;
        int width, height;
        B backend;
        std::vector<int> indices;
    } cases[] = {{"YUY2", qrv_img::En_YuvLayout::YUYV, 64, 36, B::CPU_Parallel, {0}},
                 {"UYVY", qrv_img::En_YuvLayout::UYVY, 63, 17, B::CPU_Serial, {1}},
                 {"YVYU", qrv_img::En_YuvLayout::YVYU, 30, 11, B::CPU_Serial, {0}},
                 {"VYUY", qrv_img::En_YuvLayout::VYUY, 67, 9, B::CPU_Parallel, {0, 2}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.format);
        const bool serial = c.backend == B::CPU_Serial;
        std::string steps;
        for (int index : c.indices)
            steps +=
                std::string(serial ? ";CPU Serial" : ";CPU Parallel") + "/Converter/" + std::to_string(index);
        Playback run;
        play(run, "videotestsrc num-buffers=3 pattern=smpte75 ! " + caps(c.format, c.width, c.height) +
                      ",colorimetry=" + (serial ? "bt601" : "1:4:0:0") +
                      " ! tee name=t ! queue ! ipmprocess name=ipm steps=\"" + steps.substr(1) +
                      "\" ! appsink name=out t. ! queue ! appsink name=in t. ! queue ! videoconvert "
                      "chroma-mode=none dither=none ! video/x-raw,format=ARGB64 ! appsink name=ref");
        ASSERT_EQ(run.frames["out"].size(), 3u);
        for (size_t i = 0; i < 3; ++i) {
            const auto &in = run.frames["in"][i], &out = run.frames["out"][i], &ref = run.frames["ref"][i];
            std::vector<qrv_img::QRV_Image> images;
            images.emplace_back(GST_ROUND_UP_2(c.width), c.height, F::YUV422_8, true, 1);
            images[0].yuvLayout = static_cast<int32_t>(c.layout);
            std::copy(in.second.begin(), in.second.end(), images[0].data.get());
            for (int index : c.indices) {
                images.emplace_back(images[0].width, c.height,
                                    std::vector<F>{F::RGB888, F::BGR888, F::Gray8}[index], true, 1);
                ASSERT_EQ(ipmcommon::CIpmFuncTable::Instance()->process(
                              c.backend, ipmcommon::EnIpmModule::Converter, index, &images.end()[-2],
                              &images.back(), nullptr, nullptr),
                          1);
            }
            const size_t pixel = qrv_img::bytesPerPixel(images.back().format);
            std::vector<uint8_t> expected;
            for (int row = 0; row < c.height; ++row) {
                const uint8_t* line = images.back().data.get() + row * pixel * images[0].width;
                expected.insert(expected.end(), line, line + pixel * c.width);
            }
            ASSERT_EQ(out.second, expected) << "frame " << i;
            EXPECT_EQ(out.first, in.first);
            if (c.indices.size() > 1) continue;  // videoconvert's grey is the luma alone
            // videoconvert's 8-bit output is itself off by 2 in places; its 16-bit one is exact.
            int worst = 0, sum = 0;
            for (size_t b = 0; b < expected.size(); ++b) {
                const size_t at = 8 * (b / 3) + 2 * (c.indices[0] == 1 ? 3 - b % 3 : 1 + b % 3);
                const int difference =
                    std::abs(out.second[b] - (ref.second[at] + 256 * ref.second[at + 1] + 128) / 257);
                worst = std::max(worst, difference);
                sum += difference;
            }
            EXPECT_LE(worst, 3);
            EXPECT_TRUE(!serial || sum <= static_cast<int>(expected.size())) << sum;
        }
    }
}

TEST(IpmProcessElement, LosslessDeliversEveryFrameInOrderAcrossRestarts)
{
    Playback run;
    run.slowOut = 3;  // upstream outpaces the pass: it has to wait for every frame
    play(run,
         "videotestsrc num-buffers=12 ! " + caps("UYVY", 32, 8) +
             " ! ipmprocess name=ipm ! appsink name=out sync=false",
         {}, 3);
    ASSERT_EQ(run.frames["out"].size(), 36u);
    for (size_t i = 0; i < 36; ++i) EXPECT_EQ(run.frames["out"][i].first, i % 12 * GST_SECOND / 10);
    EXPECT_EQ(run.processed, 12u);
    EXPECT_EQ(run.dropped, 0u);
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
    EXPECT_EQ(run.processed, frames.size());
    EXPECT_EQ(run.dropped, 20 - frames.size());
    EXPECT_GE(run.qos, 1);
}

TEST(IpmProcessElement, RenegotiatesSizeAndLayoutMidStream)
{
    // Grey (Y 0x50) in each layout's byte order: read in another order, it would be coloured.
    const struct {
        const char* format;
        int width;
        uint8_t pair[4];
    } shapes[] = {{"YUY2", 32, {0x50, 0x80, 0x50, 0x80}}, {"UYVY", 17, {0x80, 0x50, 0x80, 0x50}}};
    Playback run;
    play(run,
         "appsrc name=src format=time ! ipmprocess name=ipm steps=\"CPU Serial/Converter/0\" ! appsink "
         "name=out",
         [&](GstElement* pipeline) {
             GstElement* source = gst_bin_get_by_name(GST_BIN(pipeline), "src");
             gst_element_set_state(pipeline, GST_STATE_PLAYING);
             for (int i = 0; i < 4; ++i) {
                 GstCaps* format =
                     gst_caps_from_string(caps(shapes[i / 2].format, shapes[i / 2].width, 5 + i / 2).c_str());
                 GstVideoInfo info;
                 gst_video_info_from_caps(&info, format);
                 std::vector<uint8_t> bytes(info.size);
                 for (size_t b = 0; b < bytes.size(); ++b) bytes[b] = shapes[i / 2].pair[b % 4];
                 GstBuffer* buffer = gst_buffer_new_memdup(bytes.data(), bytes.size());
                 GST_BUFFER_PTS(buffer) = i * GST_SECOND / 10;
                 gst_app_src_push_sample(GST_APP_SRC(source),
                                         gst_sample_new(buffer, format, nullptr, nullptr));
             }
             gst_app_src_end_of_stream(GST_APP_SRC(source));
             gst_object_unref(source);
         });
    ASSERT_EQ(run.frames["out"].size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(run.frames["out"][i].first, i * GST_SECOND / 10);
        EXPECT_EQ(run.frames["out"][i].second,
                  std::vector<uint8_t>(3 * shapes[i / 2].width * (5 + i / 2), 75));  // (298 * 64 + 128) >> 8
    }
}

TEST(IpmProcessElement, FlushingSeekRestartsAtTheNewPosition)
{
    Playback run;
    play(run,
         "videotestsrc ! " + caps("YVYU", 32, 8) + " ! ipmprocess name=ipm ! appsink name=out sync=false",
         [](GstElement* pipeline) {
             gst_element_set_state(pipeline, GST_STATE_PAUSED);
             ASSERT_EQ(gst_element_get_state(pipeline, nullptr, nullptr, 20 * GST_SECOND),
                       GST_STATE_CHANGE_SUCCESS);
             ASSERT_TRUE(gst_element_seek(pipeline, 1.0, GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH,
                                          GST_SEEK_TYPE_SET, GST_SECOND, GST_SEEK_TYPE_SET,
                                          GST_SECOND * 3 / 2));
         });
    ASSERT_EQ(run.frames["out"].size(), 5u);
    for (size_t i = 0; i < 5; ++i) EXPECT_EQ(run.frames["out"][i].first, (10 + i) * GST_SECOND / 10);
}

TEST(IpmProcessElement, BadSettingsPostOneClearError)
{
    const struct {
        const char* steps;
        int outputStep, width;
        const char* says;
    } cases[] = {
        {"CPU Fast/Converter/0", -1, 64, "unknown backend 'CPU Fast' in step 'CPU Fast/Converter/0'"},
        {"CPU Serial/Converter/7", -1, 64, "no function at CPU Serial/Converter/7"},
        {"CPU Serial/Converter/0;CPU Serial/Converter/2", 2, 64, "output-step 2 is not a step"},
        {"CPU Parallel/Converter/0", -1, 62, "step 'CPU Parallel/Converter/0' cannot take 62x8 YUY2 frames"},
        {"CPU Serial/Converter/2", -1, 64, "step 'CPU Serial/Converter/2' cannot take 64x8 YUY2 frames"}};
    for (const auto& c : cases) {
        Playback run;
        play(run, "videotestsrc num-buffers=2 ! " + caps("YUY2", c.width, 8) +
                      " ! ipmprocess name=ipm steps=\"" + c.steps +
                      "\" output-step=" + std::to_string(c.outputStep) + " ! appsink name=out");
        ASSERT_EQ(run.errors.size(), 1u) << c.steps;
        EXPECT_NE(run.errors[0].find(c.says), std::string::npos) << run.errors[0];
        EXPECT_TRUE(run.frames["out"].empty());
    }
}

}  // namespace
