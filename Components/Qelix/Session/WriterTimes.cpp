#include "Session/WriterTimes.h"

#include "Session/SessionProcesses.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>

namespace fs = std::filesystem;

namespace qelix
{
namespace
{

constexpr const char* ZORV_WRITER_NAME = "ZorUmtWriter";

// Nanoseconds on the CPU are the first number in there; kernels can be built without the file.
void NoteThread(WriterTimes* pTimes, const fs::path& task)
{
    std::string name;
    std::ifstream(task / "comm") >> name;
    uint64_t nanoseconds = 0;
    if (name == ZORV_WRITER_NAME && std::ifstream(task / "schedstat") >> nanoseconds)
    {
        const auto tid = static_cast<pid_t>(strtol(task.filename().c_str(), nullptr, 10));
        uint64_t& known = (*pTimes)[tid];
        known = std::max(known, nanoseconds);
    }
}

} // namespace

void NoteWriters(WriterTimes* pTimes, const std::string& sessionPath, const std::string& blockName)
{
    for (const pid_t pid : LiveProcessesOf(sessionPath, blockName))
    {
        std::error_code error;
        for (fs::directory_iterator entry(fmt::format("/proc/{}/task", pid), error), end;
             !error && entry != end; entry.increment(error))
        {
            NoteThread(pTimes, entry->path());
        }
    }
}

uint64_t SumOf(const WriterTimes& times)
{
    uint64_t sum = 0;
    for (const auto& [tid, nanoseconds] : times)
    {
        sum += nanoseconds;
    }
    return sum;
}

} // namespace qelix
