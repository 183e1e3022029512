#include "Report/Report.h"
#include "Report/TextParts.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>

namespace qelix
{

std::string NameOr(const std::string& name, const char* pOtherwise)
{
    return name.empty() ? pOtherwise : PrintableText(name);
}

std::string Plural(uint64_t count, const char* pSingular, const char* pPlural)
{
    return fmt::format("{} {}", count, count == 1 ? pSingular : pPlural);
}

namespace
{

constexpr std::size_t ZORV_NAMES_SHOWN = 4;    // threads named beside a lock
constexpr std::size_t ZORV_BLOCKED_SHOWN = 50; // calls that never returned; the JSON form has all

const ThreadFacts* FindThread(const SessionFacts& session, int64_t pid, int32_t tid)
{
    for (const ProcessFacts& process : session.m_processes)
    {
        for (const ThreadFacts& thread : process.m_trace.m_threads)
        {
            if (process.m_pid == pid && thread.m_tid == tid)
            {
                return &thread;
            }
        }
    }
    return nullptr;
}

std::string ThreadLabel(const SessionFacts& session, int64_t pid, int32_t tid)
{
    const ThreadFacts* pThread = FindThread(session, pid, tid);
    return fmt::format("{} ({})", NameOr(pThread != nullptr ? pThread->m_name : "", "-"), tid);
}

uint64_t CountCalls(const TraceFacts& process)
{
    uint64_t count = 0;
    for (const ThreadFacts& thread : process.m_threads)
    {
        for (const NamedCalls& calls : thread.m_calls)
        {
            count += calls.m_facts.m_calls;
        }
    }
    return count;
}

std::size_t CountThreads(const ProcessFacts& process)
{
    return std::max(process.m_trace.m_threads.size(), process.m_samples.m_threads.size());
}

// What was too short to be recorded, and what was not asked for.
void WriteThresholds(Lines out, const Thresholds& thresholds)
{
    std::map<uint64_t, std::string> classesOf;
    std::string off;
    for (int i = 0; i < ZORV_CLASS_COUNT; ++i)
    {
        const char* pName = TraceClassName(static_cast<TraceClass>(i));
        std::string& list = thresholds[i] ? classesOf[*thresholds[i]] : off;
        list += (list.empty() ? "" : ", ") + std::string(pName);
    }
    for (const auto& [threshold, classes] : classesOf)
    {
        if (threshold != 0)
        {
            fmt::format_to(out, "calls shorter than {} were not recorded: {}\n", DurationText(threshold),
                           classes);
        }
    }
    if (!off.empty())
    {
        fmt::format_to(out, "not traced: {}\n", off);
    }
}

void WriteHead(Lines out, const SessionFacts& session)
{
    uint64_t threads = 0;
    uint64_t calls = 0;
    for (const ProcessFacts& process : session.m_processes)
    {
        threads += CountThreads(process);
        calls += CountCalls(process.m_trace);
    }
    const uint64_t samples = SampleCount(session);
    fmt::format_to(out, "session {}: {}, {}, {}{} recorded\n", PrintableText(session.m_path),
                   Plural(session.m_processes.size(), "process", "processes"),
                   Plural(threads, "thread", "threads"), Plural(calls, "call", "calls"),
                   samples != 0 ? " and " + Plural(samples, "sample", "samples") : "");
    if (session.m_settings.m_thresholds)
    {
        WriteThresholds(out, *session.m_settings.m_thresholds);
    }
}

std::string ThreadsOfLock(const SessionFacts& session, const LockFacts& lock)
{
    std::string text = fmt::format("{}:", lock.m_tids.size());
    for (std::size_t i = 0; i < std::min(lock.m_tids.size(), ZORV_NAMES_SHOWN); ++i)
    {
        text += (i == 0 ? " " : ", ") + ThreadLabel(session, lock.m_pid, lock.m_tids[i]);
    }
    return text + (lock.m_tids.size() > ZORV_NAMES_SHOWN ? ", ..." : "");
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
                       lock.m_pKind->m_pName, lock.m_pid, lock.m_calls.m_calls,
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
                fmt::format_to(out, "  {:>8} {:<28} {:<24} {:<#18x} {}\n", call.m_pid,
                               ThreadLabel(session, call.m_pid, call.m_tid), PrintableText(call.m_name),
                               call.m_address, DurationText(call.m_atLeastNs));
            }
        }
    }
    if (count > ZORV_BLOCKED_SHOWN)
    {
        fmt::format_to(out, "  and {} more\n", count - ZORV_BLOCKED_SHOWN);
    }
}

const ProcessFacts* FindProcess(const SessionFacts& session, pid_t pid)
{
    const auto found = std::find_if(session.m_processes.begin(), session.m_processes.end(),
                                    [pid](const ProcessFacts& process) { return process.m_pid == pid; });
    return found == session.m_processes.end() ? nullptr : &*found;
}

std::string TreeText(const SessionFacts& session, pid_t pid)
{
    const ProcessFacts* pProcess = FindProcess(session, pid);
    std::string text;
    if (pProcess != nullptr)
    {
        const uint64_t samples = pProcess->m_samples.m_samples;
        text = fmt::format("{}: {}, {}, {}{}", NameOr(pProcess->m_name, "-"),
                           Plural(CountThreads(*pProcess), "thread", "threads"),
                           Plural(CountCalls(pProcess->m_trace), "call", "calls"),
                           DurationText(pProcess->m_trace.m_totalNs),
                           samples != 0 ? ", CPU " + DurationText(samples * session.m_periodNs) : "");
    }
    for (const UnrecordedProcess& process : session.m_tree.m_unrecorded)
    {
        if (process.m_pid == pid)
        {
            text += fmt::format("{}{} without the agent: {}", pProcess == nullptr ? "" : "; then ",
                                process.m_program.empty() ? "ran" : PrintableText(process.m_program) + " ran",
                                process.m_reason);
        }
    }
    return text;
}

} // namespace

std::string DurationText(uint64_t nanoseconds)
{
    struct Unit
    {
        const char* m_pName;
        double m_nanoseconds;
    };
    constexpr Unit units[] = {{"s", 1e9}, {"ms", 1e6}, {"µs", 1e3}};
    for (const Unit& unit : units)
    {
        // What would round up to 1000 of a smaller unit is one of this.
        const double value = static_cast<double>(nanoseconds) / unit.m_nanoseconds;
        if (value >= 0.9995)
        {
            const int decimals = value < 9.995 ? 2 : value < 99.95 ? 1 : 0;
            return fmt::format("{:.{}f} {}", value, decimals, unit.m_pName);
        }
    }
    return fmt::format("{} ns", nanoseconds);
}

void WriteProcessTree(Lines out, const SessionFacts& session)
{
    std::vector<pid_t> recorded;
    for (const ProcessFacts& process : session.m_processes)
    {
        recorded.push_back(static_cast<pid_t>(process.m_pid));
    }
    const std::vector<TreeRow> rows = TreeRows(session.m_tree, recorded);
    if (rows.size() < 2)
    {
        return;
    }
    fmt::format_to(out, "\nprocesses\n");
    for (const TreeRow& row : rows)
    {
        fmt::format_to(out, "  {:{}}{} {}\n", "", row.m_depth * 2, row.m_pid, TreeText(session, row.m_pid));
    }
}

std::string ReportText(const SessionFacts& session)
{
    std::string text;
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
    WriteCautions(out, session);
    return text;
}

} // namespace qelix
