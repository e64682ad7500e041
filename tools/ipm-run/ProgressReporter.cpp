#include "ProgressReporter.h"

ProgressReporter::ProgressReporter(std::FILE* out, bool terminal, std::function<Counts()> counts)
    : out_(out),
      terminal_(terminal),
      counts_(std::move(counts)),
      interval_(terminal ? std::chrono::milliseconds(250) : std::chrono::milliseconds(1000))
{
}

ProgressReporter::~ProgressReporter()
{
    stop();
}

std::string ProgressReporter::format(const Counts& counts, double fps)
{
    char line[160];
    std::snprintf(line, sizeof line, "ipm-run: %llu frames delivered, %llu processed, %.1f fps, %llu dropped",
                  static_cast<unsigned long long>(counts.delivered),
                  static_cast<unsigned long long>(counts.processed), fps,
                  static_cast<unsigned long long>(counts.dropped));
    return line;
}

void ProgressReporter::start()
{
    thread_ = std::thread([this] { run_(); });
}

void ProgressReporter::stop()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

void ProgressReporter::run_()
{
    using Clock = std::chrono::steady_clock;
    Counts previous = counts_();
    Clock::time_point previousTime = Clock::now();
    size_t lastWidth = 0;
    std::unique_lock<std::mutex> lock(mutex_);
    while (!wake_.wait_for(lock, interval_, [&] { return stopping_; })) {
        const Counts now = counts_();
        const Clock::time_point time = Clock::now();
        const double seconds = std::chrono::duration<double>(time - previousTime).count();
        const double fps =
            seconds > 0.0 ? static_cast<double>(now.processed - previous.processed) / seconds : 0.0;
        const std::string line = format(now, fps);
        if (terminal_) {
            // Pad over a longer previous line.
            std::fprintf(out_, "\r%s%*s", line.c_str(),
                         static_cast<int>(lastWidth > line.size() ? lastWidth - line.size() : 0), "");
            lastWidth = line.size();
        } else {
            std::fprintf(out_, "%s\n", line.c_str());
        }
        std::fflush(out_);
        previous = now;
        previousTime = time;
    }
    if (terminal_ && lastWidth > 0) {
        std::fprintf(out_, "\r%*s\r", static_cast<int>(lastWidth), "");
        std::fflush(out_);
    }
}
