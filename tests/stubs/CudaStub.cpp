// A stand-in for the CUDA driver (libcuda.so.1), scripted through QRV_STUB_CUDA
// (read on every call) as "key=value;...": init=N (cuInit's result, default 0);
// driver=N (default 12000); names=A|!B (one device per name, none without the
// key; "!" makes cuDeviceGet fail); entered-fd=N (cuInit first writes a byte
// there); sleep-ms=N (cuInit then sleeps, a huge value hangs it).
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

bool initialized = false;

bool setting(const char* key, std::string& value)
{
    const char* script = std::getenv("QRV_STUB_CUDA");
    const std::string text = std::string(";") + (script != nullptr ? script : "") + ";";
    const size_t at = text.find(std::string(";") + key + "=");
    if (at == std::string::npos) return false;
    const size_t start = text.find('=', at) + 1;
    value = text.substr(start, text.find(';', start) - start);
    return true;
}

std::vector<std::string> names()
{
    std::vector<std::string> names;
    std::string list;
    for (size_t start = 0, bar = 0; bar != std::string::npos && setting("names", list); start = bar + 1) {
        names.push_back(list.substr(start, (bar = list.find('|', start)) - start));
    }
    return initialized ? names : std::vector<std::string>();
}

}  // namespace

extern "C" {

int cuInit(unsigned int)
{
    std::string value = "0";
    if (setting("entered-fd", value) && write(std::stoi(value), "x", 1) != 1) return 999;
    if (setting("sleep-ms", value)) std::this_thread::sleep_for(std::chrono::milliseconds(std::stoll(value)));
    initialized = !setting("init", value) || value == "0";
    return std::stoi(initialized ? "0" : value);
}

int cuDriverGetVersion(int* version)
{
    std::string value = "12000";
    setting("driver", value);
    return *version = std::stoi(value), 0;
}

int cuDeviceGetCount(int* count)
{
    return *count = static_cast<int>(names().size()), initialized ? 0 : 3;
}

// Handles differ from ordinals, so that a caller recording the handle shows.
int cuDeviceGet(int* device, int ordinal)
{
    *device = 100 + ordinal;
    return names().at(static_cast<size_t>(ordinal)).compare(0, 1, "!") == 0 ? 101 : 0;
}

int cuDeviceGetName(char* name, int length, int device)
{
    std::snprintf(name, static_cast<size_t>(length), "%s",
                  names().at(static_cast<size_t>(device - 100)).c_str());
    return 0;
}
}
