#include "Session/AgentReports.h"

#include "Session/ProcessWatch.h"
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

void AddCount(std::string_view line, std::string_view label, uint64_t* pSum)
{
    if (const std::size_t at = line.find(label); at != std::string_view::npos)
    {
        *pSum += strtoull(line.data() + at + label.size(), nullptr, 10);
    }
}

// "INFO : PID : TID: TEXT"
bool SplitInfoLine(std::string_view line, pid_t* pPid, std::string_view* pText)
{
    constexpr std::string_view prefix = "INFO : ";
    if (!line.starts_with(prefix))
    {
        return false;
    }
    *pPid = static_cast<pid_t>(strtol(line.data() + prefix.size(), nullptr, 10));
    const std::size_t tidAt = line.find(" : ", prefix.size());
    const std::size_t textAt = tidAt == line.npos ? line.npos : line.find(": ", tidAt + 3);
    if (textAt == line.npos)
    {
        return false;
    }
    *pText = line.substr(textAt + 2, line.find('\n') - textAt - 2);
    return *pPid > 0;
}

void TakeExec(const MarkedPid& log, pid_t pid, std::string_view text, AgentLogFacts* pFacts)
{
    for (const std::string_view call : {"execve : ", "execvpe : ", "fexecve : "})
    {
        if (text.starts_with(call) && text.ends_with('.'))
        {
            text.remove_prefix(call.size());
            text.remove_suffix(1);
            pFacts->m_execs.push_back({log, {log.m_mark, pid}, std::string(text)});
            return;
        }
    }
}

// What the lines say of other processes than the one that has the log.
void TakeInfoLine(const std::string& path, std::string_view line, AgentLogFacts* pFacts)
{
    pid_t pid;
    std::string_view text;
    if (!SplitInfoLine(line, &pid, &text))
    {
        return;
    }
    const MarkedPid log = MarkedPidInFileName(path);
    if (text.ends_with(") is not sampled or traced.") && pid != log.m_pid)
    {
        pFacts->m_leftOut[{log.m_mark, pid}] = log.m_pid;
    }
    if (text.starts_with("Exit from the writer thread"))
    {
        pFacts->m_ended.insert({log.m_mark, pid});
    }
    TakeExec(log, pid, text, pFacts);
}

void TakeLogLine(const std::string& path, const char* pLine, AgentLogFacts* pFacts)
{
    const std::string_view line = pLine;
    TakeInfoLine(path, line, pFacts);
    AddCount(line, "Lost trace records count = ", &pFacts->m_lostTraceRecords);
    uint64_t lost = 0;
    AddCount(line, "Lost sample records count = ", &lost);
    if (lost != 0)
    {
        pFacts->m_lostSampleRecords += lost;
        pFacts->m_lostSamplesOf[MarkedPidInFileName(path)] += lost;
    }
    uint64_t overruns = 0;
    AddCount(line, "Timer overrun count (", &overruns);
    if (overruns != 0)
    {
        pFacts->m_timerOverruns += overruns;
        pFacts->m_overrunsOf[MarkedPidInFileName(path)] += overruns;
    }
    if (line.starts_with("ERROR : "))
    {
        pFacts->m_unwritten += line.find(": Failed to write buffer ") != line.npos ? 1 : 0;
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
            errors.push_back({path, PidInFileName(path), std::move(code)});
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
