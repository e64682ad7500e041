// ThreadSanitizer's suppressions for the GStreamer element's test. GLib builds its mutexes, condition
// variables and reference counts on futexes and atomics that ThreadSanitizer does not see, so memory
// that GLib, GObject and GStreamer hand from thread to thread (buffers, messages, events, their
// allocations) shows up as races: the accesses those libraries make are not checked. The element is
// created in the application's thread and reached from streaming threads through GLib alone, so
// races with its construction are not checked either; everything else the element and the test
// share goes through a std::mutex.
extern "C" const char* __tsan_default_suppressions()
{
    return "called_from_lib:libglib-2.0.so.0\n"
           "called_from_lib:libgobject-2.0.so.0\n"
           "called_from_lib:libgstreamer-1.0.so.0\n"
           "called_from_lib:libgstbase-1.0.so.0\n"
           "called_from_lib:libgstvideo-1.0.so.0\n"
           "called_from_lib:libgstapp-1.0.so.0\n"
           "called_from_lib:libgstcoreelements.so\n"
           "called_from_lib:libgstvideotestsrc.so\n"
           "called_from_lib:libgstvideoconvertscale.so\n"
           "called_from_lib:liborc-0.4.so.0\n"
           "race:gst_ipm_process_init\n";
}
