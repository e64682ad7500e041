// The ipmprocess element and the qrvipm plug-in that registers it.
//
// A plain GstElement rather than a GstBaseTransform: the output is pushed by
// the processing manager's worker thread, not by the streaming thread that
// brought the input. See docs/gstreamer.md.
#include <gst/gst.h>
#include <gst/video/video.h>

#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "IpmStage.h"
#include "StepList.h"

// GST_PLUGIN_DEFINE records it as the plug-in's source module.
#define PACKAGE "qrv_ipm"

GST_DEBUG_CATEGORY_STATIC(ipm_process_debug);
#define GST_CAT_DEFAULT ipm_process_debug

namespace {

const char* const kDefaultSteps = "CPU Parallel/Converter/0";
enum { PROP_0, PROP_STEPS, PROP_OUTPUT_STEP, PROP_LEAKY, PROP_PROCESSED, PROP_DROPPED };

GstStaticPadTemplate sinkTemplate = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(GST_VIDEO_CAPS_MAKE("{ YUY2, UYVY, YVYU, VYUY }")));
GstStaticPadTemplate srcTemplate = GST_STATIC_PAD_TEMPLATE(
    "src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(GST_VIDEO_CAPS_MAKE("{ RGB, BGR, GRAY8 }")));

// The element's state besides its pads, under a std::mutex rather than the
// object lock: ThreadSanitizer sees the former, not GLib's futex-based one.
struct ElementState {
    std::mutex lock;
    std::string stepsText = kDefaultSteps;
    int outputStep = -1;
    bool leaky = false;
    bool leakyGiven = false;  // set by the application; otherwise decided per stream
    bool streamStarted = false;
    bool capsRefused = false;  // upstream offers the same caps again after a refusal: one error is enough
    StepList list;             // resolved when the element goes to READY
    std::shared_ptr<IpmStage> stage;
    IpmStage::Counters counters;
};

}  // namespace

struct GstIpmProcess {
    GstElement parent;
    GstPad* sinkPad;
    GstPad* srcPad;
    ElementState* state;
};
struct GstIpmProcessClass {
    GstElementClass parent_class;
};

G_DEFINE_TYPE(GstIpmProcess, gst_ipm_process, GST_TYPE_ELEMENT)

namespace {

GstIpmProcess* self(GstObject* object)
{
    return reinterpret_cast<GstIpmProcess*>(object);
}

std::shared_ptr<IpmStage> currentStage(ElementState& state)
{
    std::lock_guard<std::mutex> lock(state.lock);
    return state.stage;
}

// A copy of `caps` in the pixel formats `formats` (a caps' format field),
// without the colour description that belongs to the other side.
GstCaps* withFormats(GstCaps* caps, const GValue* formats)
{
    GstCaps* result = gst_caps_copy(caps);
    for (guint i = 0; i < gst_caps_get_size(result); ++i) {
        GstStructure* structure = gst_caps_get_structure(result, i);
        gst_structure_set_value(structure, "format", formats);
        gst_structure_remove_fields(structure, "colorimetry", "chroma-site", nullptr);
    }
    return result;
}

// Upstream may send what downstream accepts in the output step's format,
// at any of the input formats; and the reverse.
gboolean answerCapsQuery(GstIpmProcess* element, GstPad* pad, GstQuery* query)
{
    const bool sink = pad == element->sinkPad;
    GstCaps* otherSide = gst_pad_get_pad_template_caps(sink ? element->srcPad : element->sinkPad);
    {
        std::lock_guard<std::mutex> lock(element->state->lock);
        if (sink && !element->state->list.steps.empty()) {
            const GstVideoFormat format = IpmStage::videoFormatOf(element->state->list.outputFormat);
            GstCaps* output = gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING,
                                                  gst_video_format_to_string(format), nullptr);
            gst_caps_take(&otherSide, gst_caps_intersect(otherSide, output));
            gst_caps_unref(output);
        }
    }
    GstCaps* peer = gst_pad_peer_query_caps(sink ? element->srcPad : element->sinkPad, nullptr);
    GstCaps* reachable = gst_caps_intersect(peer, otherSide);
    GstCaps* own = gst_pad_get_pad_template_caps(pad);
    GstCaps* converted =
        withFormats(reachable, gst_structure_get_value(gst_caps_get_structure(own, 0), "format"));
    GstCaps* result = gst_caps_intersect(converted, own);
    GstCaps* filter = nullptr;
    gst_query_parse_caps(query, &filter);
    if (filter) gst_caps_take(&result, gst_caps_intersect_full(filter, result, GST_CAPS_INTERSECT_FIRST));
    gst_query_set_caps_result(query, result);
    for (GstCaps* caps : {otherSide, peer, reachable, own, converted, result}) gst_caps_unref(caps);
    return TRUE;
}

gboolean padQuery(GstPad* pad, GstObject* parent, GstQuery* query)
{
    switch (GST_QUERY_TYPE(query)) {
    case GST_QUERY_CAPS: return answerCapsQuery(self(parent), pad, query);
    // Downstream's buffers are for the output format, not for the frames.
    case GST_QUERY_ALLOCATION: return FALSE;
    default: return gst_pad_query_default(pad, parent, query);
    }
}

bool upstreamIsLive(GstIpmProcess* element)
{
    GstQuery* query = gst_query_new_latency();
    gboolean live = FALSE;
    if (gst_pad_peer_query(element->sinkPad, query)) gst_query_parse_latency(query, &live, nullptr, nullptr);
    gst_query_unref(query);
    return live;
}

gboolean setCaps(GstIpmProcess* element, GstCaps* caps)
{
    ElementState& state = *element->state;
    GstVideoInfo input;
    if (!gst_video_info_from_caps(&input, caps)) return FALSE;
    std::shared_ptr<IpmStage> previous = currentStage(state);
    if (previous && gst_video_info_is_equal(&input, &previous->input())) return TRUE;
    if (previous) previous->drain();

    const bool live = upstreamIsLive(element);
    StepList list;
    {
        std::lock_guard<std::mutex> lock(state.lock);
        if (!state.streamStarted && !state.leakyGiven) state.leaky = live;
        state.streamStarted = true;
        GST_DEBUG_OBJECT(element, "leaky %d (upstream %s)", state.leaky, live ? "live" : "not live");
        list = state.list;
    }
    auto stage = std::make_shared<IpmStage>(GST_ELEMENT(element), element->srcPad, state.counters);
    std::string error;
    if (!stage->start(list, input, error)) {
        bool repeated;
        {
            std::lock_guard<std::mutex> lock(state.lock);
            repeated = std::exchange(state.capsRefused, true);
        }
        // Posted without the lock: a bus handler may read the element's properties.
        if (!repeated) GST_ELEMENT_ERROR(element, CORE, NEGOTIATION, ("%s", error.c_str()), (nullptr));
        return FALSE;
    }
    if (GstEvent* sticky = gst_pad_get_sticky_event(element->sinkPad, GST_EVENT_SEGMENT, 0)) {
        const GstSegment* segment;
        gst_event_parse_segment(sticky, &segment);
        stage->setSegment(*segment);
        gst_event_unref(sticky);
    }
    GstCaps* output = gst_video_info_to_caps(&stage->output());
    {
        std::lock_guard<std::mutex> lock(state.lock);
        state.stage = stage;
    }
    const gboolean accepted = gst_pad_set_caps(element->srcPad, output);
    gst_caps_unref(output);
    return accepted;
}

gboolean sinkEvent(GstPad* pad, GstObject* parent, GstEvent* event)
{
    GstIpmProcess* element = self(parent);
    const std::shared_ptr<IpmStage> stage = currentStage(*element->state);
    // Frames handed over go downstream before any event that came after them.
    if (stage && GST_EVENT_IS_SERIALIZED(event) && GST_EVENT_TYPE(event) != GST_EVENT_FLUSH_STOP)
        stage->drain();
    switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_CAPS: {
        GstCaps* caps;
        gst_event_parse_caps(event, &caps);
        const gboolean accepted = setCaps(element, caps);
        gst_event_unref(event);
        return accepted;
    }
    case GST_EVENT_SEGMENT:
        if (stage) {
            const GstSegment* segment;
            gst_event_parse_segment(event, &segment);
            stage->setSegment(*segment);
        }
        break;
    case GST_EVENT_FLUSH_START:
        if (stage) stage->setFlushing();
        break;
    case GST_EVENT_FLUSH_STOP:
        if (stage) stage->restartAfterFlush();
        break;
    default: break;
    }
    return gst_pad_event_default(pad, parent, event);
}

GstFlowReturn sinkChain(GstPad*, GstObject* parent, GstBuffer* buffer)
{
    ElementState& state = *self(parent)->state;
    std::shared_ptr<IpmStage> stage;
    bool leaky;
    {
        std::lock_guard<std::mutex> lock(state.lock);
        stage = state.stage;
        leaky = state.leaky;
    }
    const GstFlowReturn flow = stage ? stage->submit(buffer, leaky) : GST_FLOW_NOT_NEGOTIATED;
    gst_buffer_unref(buffer);
    return flow;
}

GstStateChangeReturn changeState(GstElement* object, GstStateChange transition)
{
    GstIpmProcess* element = self(GST_OBJECT(object));
    ElementState& state = *element->state;
    switch (transition) {
    case GST_STATE_CHANGE_NULL_TO_READY: {
        std::unique_lock<std::mutex> lock(state.lock);
        std::string error;
        if (!StepList::parse(state.stepsText, state.outputStep, state.list, error)) {
            lock.unlock();
            GST_ELEMENT_ERROR(element, LIBRARY, SETTINGS, ("%s", error.c_str()), (nullptr));
            return GST_STATE_CHANGE_FAILURE;
        }
        break;
    }
    case GST_STATE_CHANGE_READY_TO_PAUSED: {
        std::lock_guard<std::mutex> lock(state.lock);
        state.streamStarted = false;
        state.capsRefused = false;
        state.counters.processed = 0;
        state.counters.dropped = 0;
        break;
    }
    case GST_STATE_CHANGE_PAUSED_TO_READY:
        // Releases a streaming thread waiting for a pass, so that the pads can deactivate.
        if (const auto stage = currentStage(state)) stage->setFlushing();
        break;
    default: break;
    }
    const GstStateChangeReturn result =
        GST_ELEMENT_CLASS(gst_ipm_process_parent_class)->change_state(object, transition);
    if (transition == GST_STATE_CHANGE_PAUSED_TO_READY) {
        std::shared_ptr<IpmStage> stage;
        {
            std::lock_guard<std::mutex> lock(state.lock);
            stage.swap(state.stage);
        }
    }
    return result;
}

void setProperty(GObject* object, guint id, const GValue* value, GParamSpec* spec)
{
    ElementState& state = *self(GST_OBJECT(object))->state;
    std::lock_guard<std::mutex> lock(state.lock);
    switch (id) {
    case PROP_STEPS: state.stepsText = g_value_get_string(value) ? g_value_get_string(value) : ""; break;
    case PROP_OUTPUT_STEP: state.outputStep = g_value_get_int(value); break;
    case PROP_LEAKY:
        state.leaky = g_value_get_boolean(value);
        state.leakyGiven = true;
        break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    }
}

void getProperty(GObject* object, guint id, GValue* value, GParamSpec* spec)
{
    ElementState& state = *self(GST_OBJECT(object))->state;
    std::lock_guard<std::mutex> lock(state.lock);
    switch (id) {
    case PROP_STEPS: g_value_set_string(value, state.stepsText.c_str()); break;
    case PROP_OUTPUT_STEP: g_value_set_int(value, state.outputStep); break;
    case PROP_LEAKY: g_value_set_boolean(value, state.leaky); break;
    case PROP_PROCESSED: g_value_set_uint64(value, state.counters.processed); break;
    case PROP_DROPPED: g_value_set_uint64(value, state.counters.dropped); break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    }
}

void finalize(GObject* object)
{
    delete self(GST_OBJECT(object))->state;
    G_OBJECT_CLASS(gst_ipm_process_parent_class)->finalize(object);
}

}  // namespace

static void gst_ipm_process_class_init(GstIpmProcessClass* klass)
{
    GObjectClass* objectClass = G_OBJECT_CLASS(klass);
    objectClass->set_property = setProperty;
    objectClass->get_property = getProperty;
    objectClass->finalize = finalize;
    const auto settable =
        static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
    const auto counter = static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);
    g_object_class_install_property(
        objectClass, PROP_STEPS,
        g_param_spec_string("steps", "Steps",
                            "The processing list: steps as ipm-run's --step takes them, "
                            "\"[frame:]BACKEND/MODULE/INDEX[:FORMAT]\", separated by ';'",
                            kDefaultSteps, settable));
    g_object_class_install_property(
        objectClass, PROP_OUTPUT_STEP,
        g_param_spec_int("output-step", "Output step",
                         "Position of the step whose destination goes downstream, from 0; -1 for the last",
                         -1, G_MAXINT, -1, settable));
    g_object_class_install_property(
        objectClass, PROP_LEAKY,
        g_param_spec_boolean(
            "leaky", "Leaky",
            "Frames that arrive during a pass replace one another and upstream never waits; "
            "otherwise every frame is processed in order. Unless set, true when upstream is live",
            FALSE, settable));
    g_object_class_install_property(
        objectClass, PROP_PROCESSED,
        g_param_spec_uint64("processed", "Processed", "Frames processed and pushed downstream", 0,
                            G_MAXUINT64, 0, counter));
    g_object_class_install_property(
        objectClass, PROP_DROPPED,
        g_param_spec_uint64("dropped", "Dropped",
                            "Frames replaced by newer ones before a pass took them (leaky)", 0, G_MAXUINT64,
                            0, counter));

    GstElementClass* elementClass = GST_ELEMENT_CLASS(klass);
    elementClass->change_state = changeState;
    gst_element_class_add_static_pad_template(elementClass, &sinkTemplate);
    gst_element_class_add_static_pad_template(elementClass, &srcTemplate);
    gst_element_class_set_static_metadata(elementClass, "QRV IPM processing", "Filter/Converter/Video",
                                          "Runs a QRV IPM processing list on packed YUV 4:2:2 frames",
                                          "QRV IPM");
}

static void gst_ipm_process_init(GstIpmProcess* element)
{
    element->state = new ElementState;
    element->sinkPad = gst_pad_new_from_static_template(&sinkTemplate, "sink");
    gst_pad_set_chain_function(element->sinkPad, sinkChain);
    gst_pad_set_event_function(element->sinkPad, sinkEvent);
    gst_pad_set_query_function(element->sinkPad, padQuery);
    GST_PAD_SET_ACCEPT_TEMPLATE(element->sinkPad);
    gst_element_add_pad(GST_ELEMENT(element), element->sinkPad);
    element->srcPad = gst_pad_new_from_static_template(&srcTemplate, "src");
    gst_pad_set_query_function(element->srcPad, padQuery);
    gst_element_add_pad(GST_ELEMENT(element), element->srcPad);
}

static gboolean plugin_init(GstPlugin* plugin)
{
    GST_DEBUG_CATEGORY_INIT(ipm_process_debug, "ipmprocess", 0, "QRV IPM processing");
    return gst_element_register(plugin, "ipmprocess", GST_RANK_NONE, gst_ipm_process_get_type());
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, qrvipm, "QRV IPM image processing", plugin_init,
                  "1.0.0", "Proprietary", "QRV IPM", "QRV IPM")
