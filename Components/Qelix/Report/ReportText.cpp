#include "Report/Report.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_NAMES_SHOWN = 4;    // threads named beside a lock
constexpr std::size_t ZORV_BLOCKED_SHOWN = 50; // calls that never returned; the JSON form has all

using Lines = std::back_insert_iterator<std::string>;

std::string NameOr(const std::string& name, const char* pOtherwise)
{
    return name.empty() ? pOtherwise : PrintableText(name);
}

std::string Plural(uint64_t count, const char* pSingular, const char* pPlural)
{
    return fmt::format("{} {}", count, count == 1 ? pSingular : pPlural);
}

const ThreadFacts* FindThread(const SessionFacts& session, int64_t pid, int32_t tid)
{
    for (const ProcessFacts& process : session.m_processes)
    {
        for (const ThreadFacts& thread : process.m_threads)
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

void WriteHead(Lines out, const SessionFacts& session)
{
    uint64_t threads = 0;
    uint64_t calls = 0;
    for (const ProcessFacts& process : session.m_processes)
    {
        threads += process.m_threads.size();
        for (const ThreadFacts& thread : process.m_threads)
        {
            for (const auto& [pKind, facts] : thread.m_calls)
            {
                calls += facts.m_calls;
            }
        }
    }
    fmt::format_to(out, "session {}: {}, {}, {} recorded\n", PrintableText(session.m_path),
                   Plural(session.m_processes.size(), "process", "processes"),
                   Plural(threads, "thread", "threads"), Plural(calls, "call", "calls"));
    if (session.m_thresholdNs.value_or(0) != 0)
    {
        fmt::format_to(out, "calls shorter than {} were not recorded\n", DurationText(*session.m_thresholdNs));
    }
}

// A dash where no call of the row has a duration: none has returned, or the clock failed.
std::string DurationOf(const CallFacts& facts, uint64_t nanoseconds)
{
    return facts.m_durations.m_count == 0 ? "-" : DurationText(nanoseconds);
}

constexpr const char* ZORV_CALL_ROW = "  {:<20} {:>8}  {:<16} {:>9} {:>9} {:>9} {:>9} {:>9}\n";

void WriteCalls(Lines out, const ThreadFacts& thread)
{
    std::vector<std::pair<const CallKind*, const CallFacts*>> rows;
    for (const auto& [pKind, facts] : thread.m_calls)
    {
        rows.emplace_back(pKind, &facts);
    }
    std::stable_sort(rows.begin(), rows.end(),
                     [](const auto& a, const auto& b) { return a.second->m_totalNs > b.second->m_totalNs; });
    std::string label = NameOr(thread.m_name, "-");
    std::string tid = fmt::format("{}", thread.m_tid);
    for (const auto& [pKind, pFacts] : rows)
    {
        const CallFacts& facts = *pFacts;
        fmt::format_to(out, fmt::runtime(ZORV_CALL_ROW), label, tid, pKind->m_pName, facts.m_calls,
                       DurationOf(facts, facts.m_totalNs), DurationOf(facts, facts.m_longestNs),
                       DurationOf(facts, Percentile(facts.m_durations, 50)),
                       DurationOf(facts, Percentile(facts.m_durations, 99)));
        label.clear();
        tid.clear();
    }
}

void WriteProcess(Lines out, const ProcessFacts& process)
{
    fmt::format_to(out, "\nprocess {} {}{}\n", process.m_pid, NameOr(process.m_name, "-"),
                   process.m_mpiRankId != 0 ? fmt::format(", rank {}", process.m_mpiRankId) : "");
    const auto quiet = std::count_if(process.m_threads.begin(), process.m_threads.end(),
                                     [](const ThreadFacts& thread) { return thread.m_calls.empty(); });
    if (quiet < std::ssize(process.m_threads))
    {
        fmt::format_to(out, fmt::runtime(ZORV_CALL_ROW), "thread", "tid", "call", "calls", "total", "longest",
                       "p50", "p99");
    }
    for (const ThreadFacts& thread : process.m_threads)
    {
        WriteCalls(out, thread);
    }
    if (quiet != 0)
    {
        fmt::format_to(out, "  {} without a recorded call\n", Plural(quiet, "thread", "threads"));
    }
    if (process.m_threads.empty())
    {
        fmt::format_to(out,
                       "  no record: the process ended before its records were written, or is still running\n");
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
        for (const NeverReturned& call : process.m_neverReturned)
        {
            if (count == 0)
            {
                fmt::format_to(out, "\ncalls that never returned\n  {:>8} {:<28} {:<10} {:<18} {}\n", "process",
                               "thread", "call", "address", "lasted at least");
            }
            if (count++ < ZORV_BLOCKED_SHOWN)
            {
                fmt::format_to(out, "  {:>8} {:<28} {:<10} {:<#18x} {}\n", call.m_pid,
                               ThreadLabel(session, call.m_pid, call.m_tid), call.m_pKind->m_pName,
                               call.m_address, DurationText(call.m_atLeastNs));
            }
        }
    }
    if (count > ZORV_BLOCKED_SHOWN)
    {
        fmt::format_to(out, "  and {} more\n", count - ZORV_BLOCKED_SHOWN);
    }
}

void WriteProcessCaution(Lines out, const ProcessFacts& process)
{
    if (process.m_damage)
    {
        fmt::format_to(out, "damaged: {}\n", DamageMessage(*process.m_damage));
    }
    else if (process.m_isEmpty)
    {
        fmt::format_to(out,
                       "empty: {}; its process ended before the agent in it had started, or is still running\n",
                       PrintableText(process.m_path));
    }
    if (process.m_unreadBytes != 0)
    {
        fmt::format_to(out, "end mark: {} has {} behind it that were not read\n", PrintableText(process.m_path),
                       Plural(process.m_unreadBytes, "byte", "bytes"));
    }
}

// What keeps this report from being the whole truth.
void WriteCautions(Lines out, const SessionFacts& session)
{
    std::string text;
    Lines lines(text);
    if (session.m_processes.empty())
    {
        fmt::format_to(
            lines, "no trace file: no process of the program loaded the agent (it may be linked statically, "
                   "set-user-id or of another architecture)\n");
    }
    for (const ProcessFacts& process : session.m_processes)
    {
        WriteProcessCaution(lines, process);
    }
    if (session.m_log.m_lostTraceRecords != 0)
    {
        fmt::format_to(lines, "lost: {} of calls that no memory could be had for\n",
                       Plural(session.m_log.m_lostTraceRecords, "record", "records"));
    }
    if (session.m_log.m_errorLines != 0)
    {
        fmt::format_to(lines, "errors: {} in the agent's logs, the first in {}: {}\n",
                       session.m_log.m_errorLines, PrintableText(session.m_log.m_firstErrorFile),
                       PrintableText(session.m_log.m_firstError));
    }
    for (const AgentError& error : session.m_agentErrors)
    {
        fmt::format_to(lines, "{}\n", ExplainAgentError(error));
    }
    if (!text.empty())
    {
        fmt::format_to(out, "\n{}", text);
    }
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

std::string ReportText(const SessionFacts& session)
{
    std::string text;
    Lines out(text);
    WriteHead(out, session);
    for (const ProcessFacts& process : session.m_processes)
    {
        if (!process.m_isEmpty)
        {
            WriteProcess(out, process);
        }
    }
    WriteLocks(out, session);
    WriteNeverReturned(out, session);
    WriteCautions(out, session);
    return text;
}

} // namespace qelix
