// What keeps a report from being the whole truth.
#include "Report/Report.h"
#include "Report/TextParts.h"
#include "Symbols/ModuleFacts.h"

#include <algorithm>
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

using Cautions = std::vector<std::string>;

void AddFileCautions(Cautions* pCautions, const StreamFile& file)
{
    if (file.m_path.empty())
    {
        return; // the stream was not asked for
    }
    if (file.m_damage)
    {
        pCautions->push_back(fmt::format("damaged: {}", DamageMessage(*file.m_damage)));
    }
    else if (file.m_isEmpty)
    {
        pCautions->push_back(
            fmt::format("empty: {}; its process ended before the agent in it had started, or is still running",
                        PrintableText(file.m_path)));
    }
    if (file.m_unreadBytes != 0)
    {
        pCautions->push_back(fmt::format("end mark: {} has {} behind it that were not read",
                                         PrintableText(file.m_path),
                                         Plural(file.m_unreadBytes, "byte", "bytes")));
    }
}

void AddProcessCautions(Cautions* pCautions, const ProcessFacts& process)
{
    const TraceFacts& trace = process.m_trace;
    const ProcessSamples& samples = process.m_samples;
    AddFileCautions(pCautions, {trace.m_path, trace.m_isEmpty, trace.m_damage, trace.m_unreadBytes});
    AddFileCautions(pCautions, {samples.m_path, samples.m_isEmpty, samples.m_damage, samples.m_unreadBytes});
    if (process.m_mapDamage)
    {
        pCautions->push_back(fmt::format("damaged: {}", DamageMessage(*process.m_mapDamage)));
    }
}

void AddLost(Cautions* pCautions, const AgentLogFacts& log)
{
    if (log.m_unwritten != 0)
    {
        pCautions->push_back(
            fmt::format("not written: {} the disk took no more of the files, or a limit on their "
                        "size did not let it; records are missing",
                        Plural(log.m_unwritten, "time", "times")));
    }
    if (log.m_lostTraceRecords != 0)
    {
        pCautions->push_back(fmt::format("lost: {} of calls that no memory could be had for",
                                         Plural(log.m_lostTraceRecords, "record", "records")));
    }
    if (log.m_lostSampleRecords != 0)
    {
        pCautions->push_back(fmt::format("lost: {}, for want of a buffer or of a turn to unwind the stack",
                                         Plural(log.m_lostSampleRecords, "sample", "samples")));
    }
    if (log.m_timerOverruns != 0)
    {
        pCautions->push_back(
            fmt::format("overruns: timers fired {} more than they were heard, as they do on a busy machine or "
                        "below the tick; CPU times count them in, by the shares of the samples",
                        Plural(log.m_timerOverruns, "time", "times")));
    }
    if (log.m_errorLines != 0)
    {
        pCautions->push_back(fmt::format("errors: {} in the agent's logs, the first in {}: {}",
                                         log.m_errorLines, PrintableText(log.m_firstErrorFile),
                                         PrintableText(log.m_firstError)));
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

void AddCutOff(Cautions* pCautions, const SessionFacts& session)
{
    const auto cutOff = std::count_if(session.m_processes.begin(), session.m_processes.end(),
                                      [](const ProcessFacts& process) { return process.m_trace.m_isCutOff; });
    if (cutOff != 0 && session.m_record.m_isStopped)
    {
        pCautions->push_back(fmt::format("stopped: the recording ended before {} did",
                                         Plural(static_cast<uint64_t>(cutOff), "process", "processes")));
    }
    else if (cutOff != 0)
    {
        pCautions->push_back(fmt::format(
            "killed: {} said no end, or {} still running; the last records of each "
            "thread, up to a buffer, may be missing",
            Plural(static_cast<uint64_t>(cutOff), "process", "processes"), cutOff == 1 ? "is" : "are"));
    }
}

// What is gone has numbers for names, and says so itself.
void AddChangedFiles(Cautions* pCautions, const SessionFacts& session)
{
    for (const ModuleFacts& module : ModulesOf(*session.m_pSymbolizer))
    {
        if (module.m_match == ZORV_FILE_CHANGED || module.m_match == ZORV_FILE_NEWER)
        {
            pCautions->push_back(
                fmt::format("changed: {}: {}", PrintableText(module.m_path), MatchText(module.m_match)));
        }
    }
}

} // namespace

std::vector<std::string> CautionLines(const SessionFacts& session)
{
    Cautions cautions;
    if (!session.m_record.m_trouble.empty())
    {
        cautions.push_back(fmt::format("session.json: {}", session.m_record.m_trouble));
    }
    if (session.m_processes.empty())
    {
        cautions.push_back("no file of a process: none that the program started loaded the agent");
    }
    for (const ProcessFacts& process : session.m_processes)
    {
        AddProcessCautions(&cautions, process);
    }
    AddCutOff(&cautions, session);
    if (const uint64_t truncated = CountTruncated(session); truncated != 0)
    {
        cautions.push_back(
            fmt::format("cut off: {} deeper stacks than were recorded; record with a larger --stacks=DEPTH",
                        Plural(truncated, "sample has", "samples have")));
    }
    if (session.m_settings.m_intervalNs.value_or(0) != 0 &&
        session.m_settings.m_intervalNs < session.m_periodNs)
    {
        cautions.push_back(
            fmt::format("interval: {} were asked for, and the kernel's tick gives a sample every {}",
                        DurationText(*session.m_settings.m_intervalNs), DurationText(session.m_periodNs)));
    }
    if (session.m_record.m_isBudgetReached)
    {
        cautions.push_back(fmt::format("budget: collection was paused when the files had reached {}",
                                       BytesText(session.m_record.m_budgetBytes.value_or(0))));
    }
    if (session.m_foldedLocks != 0)
    {
        cautions.push_back(fmt::format("locks: {} that were waited for least were not told apart",
                                       Plural(session.m_foldedLocks, "lock", "locks")));
    }
    AddChangedFiles(&cautions, session);
    AddLost(&cautions, session.m_log);
    for (const AgentError& error : session.m_agentErrors)
    {
        cautions.push_back(ExplainAgentError(error));
    }
    return cautions;
}

} // namespace qelix
