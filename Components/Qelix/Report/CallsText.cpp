#include "Report/Report.h"
#include "Report/TextParts.h"

#include <algorithm>
#include <fmt/format.h>

namespace qelix
{
namespace
{

constexpr const char* ZORV_CALL_ROW = "  {:<20} {:>8}  {:<8} {:<24} {:>9} {:>9} {:>9} {:>9} {:>9}\n";

// A dash where no call of the row has a duration: none has returned, or the clock failed.
std::string DurationOf(const CallFacts& facts, uint64_t nanoseconds)
{
    return facts.m_durations.m_count == 0 ? "-" : DurationText(nanoseconds);
}

void WriteRow(Lines out, const std::string& thread, const std::string& tid, const char* pClass,
              const std::string& name, const CallFacts& facts)
{
    fmt::format_to(out, fmt::runtime(ZORV_CALL_ROW), thread, tid, pClass, PrintableText(name), facts.m_calls,
                   DurationOf(facts, facts.m_totalNs), DurationOf(facts, MeanNs(facts)),
                   DurationOf(facts, Percentile(facts.m_durations, 95)), DurationOf(facts, facts.m_longestNs));
}

// A class with several calls has a line of its own above theirs.
void WriteThread(Lines out, const ThreadFacts& thread)
{
    std::vector<std::pair<TraceClass, CallFacts>> classes = CallsByClass(thread.m_calls);
    std::stable_sort(classes.begin(), classes.end(),
                     [](const auto& a, const auto& b) { return a.second.m_totalNs > b.second.m_totalNs; });
    std::string label = NameOr(thread.m_name, "-");
    std::string tid = fmt::format("{}", thread.m_tid);
    const auto write = [&](const char* pClass, const std::string& name, const CallFacts& facts)
    {
        WriteRow(out, label, tid, pClass, name, facts);
        label.clear();
        tid.clear();
    };
    for (const auto& [traceClass, facts] : classes)
    {
        const auto isOfClass = [traceClass = traceClass](const NamedCalls& calls)
        { return ClassOf(*calls.m_pKind) == traceClass; };
        const bool isOne = std::count_if(thread.m_calls.begin(), thread.m_calls.end(), isOfClass) == 1;
        if (!isOne)
        {
            write(TraceClassName(traceClass), "(all)", facts);
        }
        for (const NamedCalls& calls : thread.m_calls)
        {
            if (isOfClass(calls))
            {
                write(isOne ? TraceClassName(traceClass) : "", calls.m_name, calls.m_facts);
            }
        }
    }
}

} // namespace

void WriteCalls(Lines out, const ProcessFacts& process)
{
    const std::vector<ThreadFacts>& threads = process.m_trace.m_threads;
    fmt::format_to(out, "\nprocess {} {}{}\n", ProcessText(process.m_id), NameOr(process.m_name, "-"),
                   process.m_mpiRankId != 0 ? fmt::format(", rank {}", process.m_mpiRankId) : "");
    const auto quiet = std::count_if(threads.begin(), threads.end(),
                                     [](const ThreadFacts& thread) { return thread.m_calls.empty(); });
    if (quiet < std::ssize(threads))
    {
        fmt::format_to(out, fmt::runtime(ZORV_CALL_ROW), "thread", "tid", "class", "call", "calls", "total",
                       "mean", "p95", "longest");
        if (std::ssize(threads) - quiet > 1)
        {
            for (const auto& [traceClass, facts] : CallsByClass(process.m_trace))
            {
                WriteRow(out, "(all threads)", "", TraceClassName(traceClass), "(all)", facts);
            }
        }
    }
    for (const ThreadFacts& thread : threads)
    {
        WriteThread(out, thread);
    }
    if (quiet != 0)
    {
        fmt::format_to(out, "  {} without a recorded call\n", Plural(quiet, "thread", "threads"));
    }
    if (threads.empty())
    {
        fmt::format_to(out,
                       "  no record: the process ended before its records were written, or is still running\n");
    }
}

} // namespace qelix
