// What keeps a report from being the whole truth.
#include "Report/Report.h"
#include "Report/TextParts.h"

#include <fmt/format.h>

namespace qelix
{
namespace
{

// The stream of one process that goes into one file.
struct StreamFile
{
    const std::string& m_path;
    bool m_isEmpty;
    const std::optional<Damage>& m_damage;
    uint64_t m_unreadBytes;
};

void WriteFileCaution(Lines out, const StreamFile& file)
{
    if (file.m_path.empty())
    {
        return; // the stream was not asked for
    }
    if (file.m_damage)
    {
        fmt::format_to(out, "damaged: {}\n", DamageMessage(*file.m_damage));
    }
    else if (file.m_isEmpty)
    {
        fmt::format_to(out,
                       "empty: {}; its process ended before the agent in it had started, or is still running\n",
                       PrintableText(file.m_path));
    }
    if (file.m_unreadBytes != 0)
    {
        fmt::format_to(out, "end mark: {} has {} behind it that were not read\n", PrintableText(file.m_path),
                       Plural(file.m_unreadBytes, "byte", "bytes"));
    }
}

void WriteProcessCaution(Lines out, const ProcessFacts& process)
{
    const TraceFacts& trace = process.m_trace;
    const ProcessSamples& samples = process.m_samples;
    WriteFileCaution(out, {trace.m_path, trace.m_isEmpty, trace.m_damage, trace.m_unreadBytes});
    WriteFileCaution(out, {samples.m_path, samples.m_isEmpty, samples.m_damage, samples.m_unreadBytes});
    if (process.m_mapDamage)
    {
        fmt::format_to(out, "damaged: {}\n", DamageMessage(*process.m_mapDamage));
    }
}

void WriteLost(Lines out, const AgentLogFacts& log)
{
    if (log.m_lostTraceRecords != 0)
    {
        fmt::format_to(out, "lost: {} of calls that no memory could be had for\n",
                       Plural(log.m_lostTraceRecords, "record", "records"));
    }
    if (log.m_lostSampleRecords != 0)
    {
        fmt::format_to(out, "lost: {}, for want of a buffer or of a turn to unwind the stack\n",
                       Plural(log.m_lostSampleRecords, "sample", "samples"));
    }
    if (log.m_timerOverruns != 0)
    {
        fmt::format_to(out,
                       "overruns: timers fired {} more than they were heard, as they do on a busy machine or "
                       "below the tick; shares hold, CPU times are too low\n",
                       Plural(log.m_timerOverruns, "time", "times"));
    }
    if (log.m_errorLines != 0)
    {
        fmt::format_to(out, "errors: {} in the agent's logs, the first in {}: {}\n", log.m_errorLines,
                       PrintableText(log.m_firstErrorFile), PrintableText(log.m_firstError));
    }
}

uint64_t CountTruncated(const SessionFacts& session)
{
    uint64_t count = 0;
    for (const ProcessFacts& process : session.m_processes)
    {
        for (const ThreadSamples& thread : process.m_samples.m_threads)
        {
            count += thread.m_truncated;
        }
    }
    return count;
}

} // namespace

void WriteCautions(Lines out, const SessionFacts& session)
{
    std::string text;
    Lines lines(text);
    if (session.m_processes.empty())
    {
        fmt::format_to(lines, "no file of a process: none that the program started loaded the agent\n");
    }
    for (const ProcessFacts& process : session.m_processes)
    {
        WriteProcessCaution(lines, process);
    }
    if (const uint64_t truncated = CountTruncated(session); truncated != 0)
    {
        fmt::format_to(lines,
                       "cut off: {} have deeper stacks than were recorded; record with a larger --depth\n",
                       Plural(truncated, "sample", "samples"));
    }
    if (session.m_settings.m_intervalNs.value_or(0) != 0 &&
        session.m_settings.m_intervalNs < session.m_periodNs)
    {
        fmt::format_to(lines, "interval: {} were asked for, and the kernel's tick gives a sample every {}\n",
                       DurationText(*session.m_settings.m_intervalNs), DurationText(session.m_periodNs));
    }
    WriteLost(lines, session.m_log);
    for (const AgentError& error : session.m_agentErrors)
    {
        fmt::format_to(lines, "{}\n", ExplainAgentError(error));
    }
    if (!text.empty())
    {
        fmt::format_to(out, "\n{}", text);
    }
}

} // namespace qelix
