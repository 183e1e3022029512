#include "Report/CpuFacts.h"
#include "Report/Report.h"
#include "Report/TextParts.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_FUNCTIONS_SHOWN = 20; // of the session; the JSON form has all
constexpr std::size_t ZORV_OF_THREAD_SHOWN = 5;
constexpr std::size_t ZORV_THREADS_SHOWN = 12;
constexpr std::size_t ZORV_MODULES_SHOWN = 10;

// "34.5 %"
std::string ShareText(double part, double whole)
{
    return fmt::format("{:.1f} %", whole == 0 ? 0.0 : 100 * part / whole);
}

void WriteFunctions(Lines out, const SessionFacts& session, const FunctionCounts& counts, double wholeNs,
                    std::size_t most)
{
    std::vector<FunctionRow> rows = RankedFunctions(*session.m_pSymbolizer, counts);
    rows.resize(std::min(rows.size(), most));
    for (const FunctionRow& row : rows)
    {
        fmt::format_to(out, "  {:>8} {:>8} {:>9}  {}  ({})\n", ShareText(row.m_count.m_selfNs, wholeNs),
                       ShareText(row.m_count.m_totalNs, wholeNs), DurationText(WholeNs(row.m_count.m_selfNs)),
                       PrintableText(row.m_pFunction->m_name),
                       PrintableText(ModuleName(row.m_pFunction->m_module)));
    }
}

void WriteEvents(Lines out, const ProcessSamples& process, const ThreadSamples& thread)
{
    for (std::size_t i = 0; i < std::min(thread.m_eventSums.size(), process.m_events.size()); ++i)
    {
        fmt::format_to(out, "  event {:#x}: {}\n", process.m_events[i], thread.m_eventSums[i]);
    }
}

void WriteThreads(Lines out, const SessionFacts& session, double wholeNs)
{
    std::vector<ThreadRow> rows = RankedThreads(session);
    const std::size_t all = rows.size();
    rows.resize(std::min(all, ZORV_THREADS_SHOWN));
    for (const ThreadRow& row : rows)
    {
        fmt::format_to(out, "\n{} of the CPU time: thread {} ({}) of process {} {}\n",
                       ShareText(row.m_ns, wholeNs), NameOr(row.m_pThread->m_name, "-"), row.m_pThread->m_tid,
                       ProcessText(row.m_pProcess->m_id), NameOr(row.m_pProcess->m_name, "-"));
        WriteFunctions(out, session, FunctionsOf(session, row), row.m_ns, ZORV_OF_THREAD_SHOWN);
        WriteEvents(out, row.m_pProcess->m_samples, *row.m_pThread);
    }
    if (rows.size() < all)
    {
        fmt::format_to(out, "\nand {}\n", Plural(all - rows.size(), "further thread", "further threads"));
    }
}

void WriteModules(Lines out, const SessionFacts& session, const FunctionCounts& counts, double wholeNs)
{
    std::vector<ModuleRow> rows = RankedModules(*session.m_pSymbolizer, counts);
    rows.resize(std::min(rows.size(), ZORV_MODULES_SHOWN));
    fmt::format_to(out, "\nCPU time by module\n");
    for (const ModuleRow& row : rows)
    {
        fmt::format_to(out, "  {:>8} {:>9}  {}\n", ShareText(row.m_selfNs, wholeNs),
                       DurationText(WholeNs(row.m_selfNs)), PrintableText(row.m_path));
    }
}

} // namespace

void WriteCpu(Lines out, const SessionFacts& session)
{
    const uint64_t samples = SampleCount(session);
    if (samples == 0)
    {
        return;
    }
    const FunctionCounts counts = FunctionsOf(session);
    const double wholeNs = SampledNs(session);
    fmt::format_to(out, "\nwhere CPU goes: {}, each for {}, {} in all\n", Plural(samples, "sample", "samples"),
                   DurationText(session.m_periodNs), DurationText(WholeNs(wholeNs)));
    fmt::format_to(out, "  {:>8} {:>8} {:>9}  {}\n", "self", "total", "self", "function");
    WriteFunctions(out, session, counts, wholeNs, ZORV_FUNCTIONS_SHOWN);
    WriteModules(out, session, counts, wholeNs);
    WriteThreads(out, session, wholeNs);
}

} // namespace qelix
