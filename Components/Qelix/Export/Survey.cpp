#include "Export/Survey.h"

#include "Report/SampleWeight.h"
#include "Session/AgentConfiguration.h"
#include "Session/Failure.h"
#include "Session/SessionDirectory.h"
#include "Session/SessionRecord.h"

#include <algorithm>
#include <filesystem>
#include <set>

namespace qelix
{
namespace
{

bool IsSession(const std::string& path)
{
    std::error_code error;
    return std::filesystem::is_directory(TraceFolder(path), error);
}

std::vector<std::string> SessionsIn(const std::string& path)
{
    if (IsSession(path))
    {
        return {path};
    }
    std::vector<std::string> sessions;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(path, error))
    {
        if (entry.path().filename().string().starts_with("rank=") && IsSession(entry.path()))
        {
            sessions.push_back(entry.path());
        }
    }
    std::sort(sessions.begin(), sessions.end());
    if (sessions.empty())
    {
        throw NoSession(path);
    }
    return sessions;
}

bool IsEmpty(const TimeSpan& span)
{
    return span.m_first > span.m_last;
}

uint64_t SampleCount(const SurveyedProcess& process)
{
    uint64_t count = 0;
    for (const auto& [tid, thread] : process.m_threads)
    {
        count += thread.m_samples;
    }
    return count;
}

// Viewers tell processes apart by their ids alone.
void ChooseShownPids(SessionSurvey* pSurvey)
{
    constexpr int64_t pidsOfAKernel = int64_t{1} << 22;
    std::set<int64_t> taken;
    for (SurveyedProcess& process : pSurvey->m_processes)
    {
        process.m_shownPid = process.m_pid;
        while (!taken.insert(process.m_shownPid).second)
        {
            process.m_shownPid += pidsOfAKernel;
        }
    }
}

// A process of which no time is known lies where the session does.
void SettleSpans(SessionSurvey* pSurvey)
{
    if (IsEmpty(pSurvey->m_span))
    {
        pSurvey->m_span = {0, 0};
    }
    for (SurveyedProcess& process : pSurvey->m_processes)
    {
        process.m_span = IsEmpty(process.m_span) ? pSurvey->m_span : process.m_span;
    }
}

} // namespace

SessionSurvey SurveySession(const std::string& path)
{
    SessionSurvey survey;
    survey.m_path = path;
    for (const std::string& session : SessionsIn(path))
    {
        const SessionRecord record = ReadSessionRecord(session);
        const SampleClock clock = SampleClockOf(ReadSettings(session), record);
        const AgentLogFacts log = ReadAgentLogs(session);
        survey.m_periodNs = std::max(survey.m_periodNs, clock.m_periodNs);
        survey.m_clocks = survey.m_clocks ? survey.m_clocks : record.m_start;
        const ClockShifts shifts = ReadClockShifts(session);
        for (const auto& [key, files] : FilesOfProcesses(session))
        {
            SurveyedProcess process = SurveyProcess(key, files, shifts, &survey.m_damages);
            if (!IsEmpty(process.m_span))
            {
                Widen(&survey.m_span, process.m_span.m_first);
                Widen(&survey.m_span, process.m_span.m_last);
            }
            process.m_nsPerSample = NsPerSample(clock, log, files.m_sample, SampleCount(process));
            survey.m_processes.push_back(std::move(process));
        }
    }
    SettleSpans(&survey);
    ChooseShownPids(&survey);
    return survey;
}

} // namespace qelix
