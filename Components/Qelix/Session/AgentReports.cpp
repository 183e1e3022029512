#include "Session/AgentReports.h"

#include "Session/SessionDirectory.h"
#include "ZorvUserModeTraceTypes.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <string_view>

namespace qelix
{
namespace
{

struct ErrorText
{
    ZorvAgentErrorMsg m_code;
    const char* m_pWhat;
    const char* m_pRemedy;
};

constexpr ErrorText g_errorTexts[] = {
    {ZORV_AGENT_ERROR_PROFILING_SIGNAL,
     "the program set up a handler of its own for the signal that the samples need",
     "record it without sampling, or sample with a signal that the program leaves alone"},
    {ZORV_AGENT_ERROR_MAX_OPEN_FILES, "the program ran out of file descriptors when its counters were opened",
     "raise the limit (ulimit -n) or count fewer events"},
    {ZORV_AGENT_ERROR_LIBJEMALLOC, "libjemalloc.so is preloaded, which cannot be traced",
     "take libjemalloc out of LD_PRELOAD and run the program again"},
};

struct FileCloser
{
    void operator()(FILE* pFile) const
    {
        fclose(pFile);
    }
};

using File = std::unique_ptr<FILE, FileCloser>;

std::string FirstLineOf(const std::string& path)
{
    char line[64] = "";
    const File file(fopen(path.c_str(), "re"));
    if (file == nullptr || fgets(line, sizeof(line), file.get()) == nullptr)
    {
        return "";
    }
    line[strcspn(line, "\r\n")] = '\0';
    return line;
}

// File names end in "_PID.err".
pid_t PidInName(const std::string& path)
{
    const std::size_t underscore = path.rfind('_');
    return underscore == std::string::npos
               ? 0
               : static_cast<pid_t>(strtol(path.c_str() + underscore + 1, nullptr, 10));
}

void AddCount(std::string_view line, std::string_view label, uint64_t* pSum)
{
    if (const std::size_t at = line.find(label); at != std::string_view::npos)
    {
        *pSum += strtoull(line.data() + at + label.size(), nullptr, 10);
    }
}

void TakeLogLine(const std::string& path, const char* pLine, AgentLogFacts* pFacts)
{
    const std::string_view line = pLine;
    AddCount(line, "Lost trace records count = ", &pFacts->m_lostTraceRecords);
    AddCount(line, "Lost sample records count = ", &pFacts->m_lostSampleRecords);
    if (line.starts_with("ERROR : "))
    {
        if (pFacts->m_errorLines++ == 0)
        {
            pFacts->m_firstError = line.substr(0, line.find('\n'));
            pFacts->m_firstErrorFile = path;
        }
    }
}

} // namespace

std::vector<AgentError> ReadAgentErrors(const std::string& sessionPath)
{
    std::vector<AgentError> errors;
    for (const std::string& path : FilesIn(ErrorFolder(sessionPath), ".err"))
    {
        // Each process makes its file at the start; most stay empty.
        if (std::string code = FirstLineOf(path); !code.empty())
        {
            errors.push_back({path, PidInName(path), std::move(code)});
        }
    }
    return errors;
}

std::string ExplainAgentError(const AgentError& error)
{
    for (const ErrorText& text : g_errorTexts)
    {
        if (error.m_code == fmt::format("{}", static_cast<int>(text.m_code)))
        {
            return fmt::format("the agent ended process {}: {} (code {}); {}", error.m_pid, text.m_pWhat,
                               error.m_code, text.m_pRemedy);
        }
    }
    return fmt::format(
        "the agent ended process {} with a code that is not known here; look into {} and the log "
        "beside it",
        error.m_pid, error.m_path);
}

AgentLogFacts ReadAgentLogs(const std::string& sessionPath)
{
    AgentLogFacts facts;
    for (const std::string& path : FilesIn(LogFolder(sessionPath), ".txt"))
    {
        ++facts.m_logCount;
        const File file(fopen(path.c_str(), "re"));
        char line[2048];
        while (file != nullptr && fgets(line, sizeof(line), file.get()) != nullptr)
        {
            TakeLogLine(path, line, &facts);
        }
    }
    return facts;
}

} // namespace qelix
