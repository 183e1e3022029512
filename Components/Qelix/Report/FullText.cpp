#include "Report/CpuFacts.h"
#include "Report/Report.h"
#include "Report/TextParts.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>

namespace qelix
{

namespace
{

constexpr std::size_t ZORV_NAMES_SHOWN = 4;    // threads named beside a lock
constexpr std::size_t ZORV_BLOCKED_SHOWN = 50; // calls that never returned; the JSON form has all

const ThreadFacts* FindThread(const SessionFacts& session, const MarkedPid& id, int32_t tid)
{
    for (const ProcessFacts& process : session.m_processes)
    {
        for (const ThreadFacts& thread : process.m_trace.m_threads)
        {
            if (process.m_id == id && thread.m_tid == tid)
            {
                return &thread;
            }
        }
    }
    return nullptr;
}

void WriteHead(Lines out, const SessionFacts& session)
{
    uint64_t threads = 0;
    uint64_t calls = 0;
    for (const ProcessFacts& process : session.m_processes)
    {
        threads += CountThreads(process);
        calls += CallCount(process.m_trace);
    }
    const uint64_t samples = SampleCount(session);
    fmt::format_to(out, "session {}: {}, {}, {}{} recorded\n", PrintableText(session.m_path),
                   Plural(session.m_processes.size(), "process", "processes"),
                   Plural(threads, "thread", "threads"), Plural(calls, "call", "calls"),
                   samples != 0 ? " and " + Plural(samples, "sample", "samples") : "");
    if (session.m_settings.m_thresholds)
    {
        const std::string tooShort = ThresholdsText(*session.m_settings.m_thresholds);
        const std::string off = ClassesOff(*session.m_settings.m_thresholds);
        fmt::format_to(out, "{}{}", tooShort.empty() ? "" : "calls not recorded: " + tooShort + "\n",
                       off.empty() ? "" : "not traced: " + off + "\n");
    }
}

std::string ThreadsOfLock(const SessionFacts& session, const LockFacts& lock)
{
    std::string text = fmt::format("{}:", lock.m_waiters.size());
    for (std::size_t i = 0; i < std::min(lock.m_waiters.size(), ZORV_NAMES_SHOWN); ++i)
    {
        text += (i == 0 ? " " : ", ") + ThreadLabel(session, lock.m_process, lock.m_waiters[i].m_tid);
    }
    return text + (lock.m_waiters.size() > ZORV_NAMES_SHOWN ? ", ..." : "");
}

void WriteLocks(Lines out, const SessionFacts& session)
{
    if (session.m_locks.empty())
    {
        return;
    }
    fmt::format_to(out, "\nlocks waited on longest\n  {:<18} {:<10} {:>8} {:>9} {:>9} {:>9}  {}\n", "address",
                   "kind", "process", "calls", "total", "longest", "threads");
    for (const LockFacts& lock : session.m_locks)
    {
        fmt::format_to(out, "  {:<#18x} {:<10} {:>8} {:>9} {:>9} {:>9}  {}\n", lock.m_address,
                       lock.m_pKind->m_pName, ProcessText(lock.m_process), lock.m_calls.m_calls,
                       DurationText(lock.m_calls.m_totalNs), DurationText(lock.m_calls.m_longestNs),
                       ThreadsOfLock(session, lock));
    }
}

void WriteNeverReturned(Lines out, const SessionFacts& session)
{
    std::size_t count = 0;
    for (const ProcessFacts& process : session.m_processes)
    {
        for (const NeverReturned& call : process.m_trace.m_neverReturned)
        {
            if (count == 0)
            {
                fmt::format_to(out, "\ncalls that never returned\n  {:>8} {:<28} {:<24} {:<18} {}\n", "process",
                               "thread", "call", "address", "lasted at least");
            }
            if (count++ < ZORV_BLOCKED_SHOWN)
            {
                fmt::format_to(out, "  {:>8} {:<28} {:<24} {:<#18x} {}\n", ProcessText(call.m_process),
                               ThreadLabel(session, call.m_process, call.m_tid), PrintableText(call.m_name),
                               call.m_address, DurationText(call.m_atLeastNs));
            }
        }
    }
    if (count > ZORV_BLOCKED_SHOWN)
    {
        fmt::format_to(out, "  and {} more\n", count - ZORV_BLOCKED_SHOWN);
    }
}

const ProcessFacts* FindProcess(const SessionFacts& session, const MarkedPid& id)
{
    const auto found = std::find_if(session.m_processes.begin(), session.m_processes.end(),
                                    [&id](const ProcessFacts& process) { return process.m_id == id; });
    return found == session.m_processes.end() ? nullptr : &*found;
}

std::string TreeText(const SessionFacts& session, const MarkedPid& id)
{
    const ProcessFacts* pProcess = FindProcess(session, id);
    std::string text;
    if (pProcess != nullptr)
    {
        const uint64_t samples = pProcess->m_samples.m_samples;
        text = fmt::format("{}: {}, {}, {}{}", NameOr(pProcess->m_name, "-"),
                           Plural(CountThreads(*pProcess), "thread", "threads"),
                           Plural(CallCount(pProcess->m_trace), "call", "calls"),
                           DurationText(pProcess->m_trace.m_totalNs),
                           samples != 0 ? ", CPU " + DurationText(SampledNs(session, *pProcess, samples)) : "");
    }
    for (const UnrecordedProcess& process : session.m_tree.m_unrecorded)
    {
        if (process.m_process == id)
        {
            text += fmt::format("{}{} without the agent: {}", pProcess == nullptr ? "" : "; then ",
                                process.m_program.empty() ? "ran" : PrintableText(process.m_program) + " ran",
                                process.m_reason);
        }
    }
    return text;
}

} // namespace

std::string ProcessText(const MarkedPid& process)
{
    return fmt::format("{}{}", process.m_mark, process.m_pid);
}

std::string ThreadLabel(const SessionFacts& session, const MarkedPid& process, int32_t tid)
{
    const ThreadFacts* pThread = FindThread(session, process, tid);
    return fmt::format("{} ({})", NameOr(pThread != nullptr ? pThread->m_name : "", "-"), tid);
}

std::size_t CountThreads(const ProcessFacts& process)
{
    return std::max(process.m_trace.m_threads.size(), process.m_samples.m_threads.size());
}

std::string ThresholdsText(const Thresholds& thresholds)
{
    std::map<uint64_t, std::string> classesOf;
    for (int i = 0; i < ZORV_CLASS_COUNT; ++i)
    {
        if (thresholds[i].value_or(0) != 0)
        {
            std::string& list = classesOf[*thresholds[i]];
            list += (list.empty() ? "" : ", ") + std::string(TraceClassName(static_cast<TraceClass>(i)));
        }
    }
    std::string text;
    for (const auto& [threshold, classes] : classesOf)
    {
        text += fmt::format("{}{} below {}", text.empty() ? "" : "; ", classes, DurationText(threshold));
    }
    return text;
}

std::string ClassesOff(const Thresholds& thresholds)
{
    std::string off;
    for (int i = 0; i < ZORV_CLASS_COUNT; ++i)
    {
        if (!thresholds[i])
        {
            off += (off.empty() ? "" : ", ") + std::string(TraceClassName(static_cast<TraceClass>(i)));
        }
    }
    return off;
}

void WriteProcessTree(Lines out, const SessionFacts& session)
{
    std::vector<MarkedPid> recorded;
    for (const ProcessFacts& process : session.m_processes)
    {
        recorded.push_back(process.m_id);
    }
    const std::vector<TreeRow> rows = TreeRows(session.m_tree, recorded);
    if (rows.size() < 2)
    {
        return;
    }
    fmt::format_to(out, "\nprocesses\n");
    for (const TreeRow& row : rows)
    {
        fmt::format_to(out, "  {:{}}{} {}\n", "", row.m_depth * 2, ProcessText(row.m_process),
                       TreeText(session, row.m_process));
    }
}

std::string FullReportText(const SessionFacts& session)
{
    std::string text;
    std::string cautions;
    Lines out(text);
    WriteHead(out, session);
    WriteProcessTree(out, session);
    for (const ProcessFacts& process : session.m_processes)
    {
        if (!process.m_trace.m_isEmpty)
        {
            WriteCalls(out, process);
        }
    }
    WriteLocks(out, session);
    WriteNeverReturned(out, session);
    WriteCpu(out, session);
    for (const std::string& line : CautionLines(session))
    {
        cautions += line + '\n';
    }
    return text + (cautions.empty() ? "" : '\n' + cautions);
}

} // namespace qelix
