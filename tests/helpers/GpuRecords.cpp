#include "GpuRecords.h"

#include <sstream>

#include "LogCapture.h"

namespace qrvtest {

std::string gpuRecordLine(const ipm::GpuInfo& gpu)
{
    std::ostringstream line;
    line << "GPU\t" << gpu.index << '\t' << escapeField(gpu.name) << '\t' << escapeField(gpu.vendor) << '\t'
         << static_cast<int>(gpu.type) << '\t' << static_cast<int>(gpu.cudaState) << '\t'
         << static_cast<int>(gpu.openCLState) << '\t' << static_cast<int>(gpu.openGLState) << '\t'
         << escapeField(gpu.cudaVersion) << '\t' << escapeField(gpu.openCLVersion) << '\t'
         << escapeField(gpu.openGLVersion) << '\t' << gpu.cudaIndex << '\t' << gpu.openCLPlatform << '\t'
         << gpu.openCLDevice;
    return line.str();
}

std::vector<ipm::GpuInfo> parseGpuRecords(const std::string& output)
{
    std::vector<ipm::GpuInfo> records;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);) {
        if (line.compare(0, 4, "GPU\t") != 0) continue;
        const std::vector<std::string> fields = splitFields(line.substr(4));
        if (fields.size() != 13) continue;
        ipm::GpuInfo gpu;
        gpu.index = std::stoi(fields[0]);
        gpu.name = fields[1];
        gpu.vendor = fields[2];
        gpu.type = static_cast<ipm::En_GpuType>(std::stoi(fields[3]));
        gpu.cudaState = static_cast<ipm::En_ApiState>(std::stoi(fields[4]));
        gpu.openCLState = static_cast<ipm::En_ApiState>(std::stoi(fields[5]));
        gpu.openGLState = static_cast<ipm::En_ApiState>(std::stoi(fields[6]));
        gpu.cudaVersion = fields[7];
        gpu.openCLVersion = fields[8];
        gpu.openGLVersion = fields[9];
        gpu.cudaIndex = std::stoi(fields[10]);
        gpu.openCLPlatform = std::stoi(fields[11]);
        gpu.openCLDevice = std::stoi(fields[12]);
        records.push_back(std::move(gpu));
    }
    return records;
}

std::vector<std::string> gpuListLines(const ipm::CIpmGpuEnv& env)
{
    std::vector<std::string> lines;
    const size_t count = env.getGpuCount();
    for (size_t i = 0; i < count; ++i) lines.push_back(gpuRecordLine(env.getGpu(i)));
    return lines;
}

}  // namespace qrvtest
