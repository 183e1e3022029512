#include "Session/SessionProcesses.h"

#include "Session/AgentReports.h"
#include "Session/ControlBlock.h"
#include "Session/ProcessWatch.h"
#include "Session/SessionDirectory.h"
#include "Session/Sizes.h"
#include "ZorvUserModeTraceTypes.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>

namespace fs = std::filesystem;

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_LOOKED_AT = 64 << 10; // bytes of a file that its mean record is told from
constexpr uint64_t ZORV_AGENT_THREADS = 1;

uint64_t SizeOf(const std::string& path)
{
    std::error_code error;
    const uint64_t size = fs::file_size(path, error);
    return error ? 0 : size;
}

// Where a record of a kind of file says its size.
struct RecordSize
{
    std::size_t m_offset;
    std::size_t m_smallest;
};

constexpr RecordSize g_traceRecord = {offsetof(ZorvUmtRecordHdr, m_recSize), sizeof(ZorvUmtRecordHdr)};
constexpr RecordSize g_sampleRecord = {offsetof(ZorvUmsRecordHdr, m_recSize), sizeof(ZorvUmsRecordHdr)};
constexpr std::size_t ZORV_HEADER_SIZE = sizeof(ZorvUmtFileHdr); // of both kinds

// The file may still be growing, and each of its bytes may be wrong.
uint64_t EstimateRecords(const std::string& path, const RecordSize& recordSize)
{
    std::string head(ZORV_LOOKED_AT, '\0');
    std::ifstream file(path, std::ios::binary);
    file.read(head.data(), static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<std::size_t>(file.gcount()));
    uint64_t count = 0;
    std::size_t at = ZORV_HEADER_SIZE;
    while (at + recordSize.m_smallest <= head.size())
    {
        uint16_t size;
        std::memcpy(&size, head.data() + at + recordSize.m_offset, sizeof(size));
        if (size < recordSize.m_smallest)
        {
            break;
        }
        ++count;
        at += size;
    }
    const uint64_t size = SizeOf(path);
    if (count == 0 || size < at)
    {
        return count;
    }
    return (size - ZORV_HEADER_SIZE) * count / (at - ZORV_HEADER_SIZE);
}

uint64_t ThreadsOf(pid_t pid)
{
    std::error_code error;
    uint64_t count = 0;
    for (fs::directory_iterator entry(fmt::format("/proc/{}/task", pid), error), end; !error && entry != end;
         entry.increment(error))
    {
        ++count;
    }
    return count > ZORV_AGENT_THREADS ? count - ZORV_AGENT_THREADS : count;
}

} // namespace

std::vector<pid_t> LiveProcessesOf(const std::string& sessionPath, const std::string& blockName)
{
    std::vector<pid_t> live;
    for (const std::string& path : FilesIn(LogFolder(sessionPath), ".txt"))
    {
        if (const pid_t pid = PidInFileName(path); pid > 0 && HasBlockMapped(pid, blockName))
        {
            live.push_back(pid);
        }
    }
    std::sort(live.begin(), live.end());
    live.erase(std::unique(live.begin(), live.end()), live.end()); // an exec gives a process a second log
    return live;
}

SessionProgress ReadProgress(const std::string& sessionPath, const std::string& blockName)
{
    SessionProgress progress;
    const AgentLogFacts logs = ReadAgentLogs(sessionPath);
    progress.m_processes = logs.m_logCount;
    progress.m_lost = logs.m_lostTraceRecords + logs.m_lostSampleRecords;
    for (const pid_t pid : LiveProcessesOf(sessionPath, blockName))
    {
        ++progress.m_liveProcesses;
        progress.m_threads += ThreadsOf(pid);
    }
    for (const std::string& path : FilesIn(TraceFolder(sessionPath), ".umt"))
    {
        progress.m_records += EstimateRecords(path, g_traceRecord);
    }
    for (const std::string& path : FilesIn(SampleFolder(sessionPath), ".ums"))
    {
        progress.m_records += EstimateRecords(path, g_sampleRecord);
    }
    progress.m_bytes = SessionSize(sessionPath);
    return progress;
}

std::string ProgressText(const SessionProgress& progress, bool isOver)
{
    const auto counted = [](uint64_t count, const char* pOne, const char* pMany)
    { return fmt::format("{} {}", count, count == 1 ? pOne : pMany); };
    const std::string alive = isOver ? counted(progress.m_processes, "process",
                                               "processes") // none of them is left to count threads of
                                     : counted(progress.m_liveProcesses, "process", "processes") + ", " +
                                           counted(progress.m_threads, "thread", "threads");
    return fmt::format("{}, {}, {}, {} lost", alive, counted(progress.m_records, "record", "records"),
                       SizeText(progress.m_bytes), progress.m_lost);
}

uint64_t SessionSize(const std::string& sessionPath)
{
    uint64_t size = 0;
    std::error_code error;
    for (fs::recursive_directory_iterator entry(sessionPath, error), end; !error && entry != end;
         entry.increment(error))
    {
        std::error_code gone;
        if (entry->is_regular_file(gone) && !entry->is_symlink(gone))
        {
            size += SizeOf(entry->path());
        }
    }
    return size;
}

void RemoveRecordsOfOthers(const std::string& sessionPath, pid_t program)
{
    for (const auto& [folder, ending] :
         {std::pair(TraceFolder(sessionPath), ".umt"), std::pair(SampleFolder(sessionPath), ".ums"),
          std::pair(MetadataFolder(sessionPath), ".meta")})
    {
        for (const std::string& path : FilesIn(folder, ending))
        {
            std::error_code error; // one that stays is read, and no harm is done
            if (PidInFileName(path) != program)
            {
                fs::remove(path, error);
            }
        }
    }
}

} // namespace qelix
