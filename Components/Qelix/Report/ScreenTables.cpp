// The three tables of the one-screen report.
#include "Report/CpuFacts.h"
#include "Report/Report.h"
#include "Report/TextParts.h"
#include "Report/ThreadTimes.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <fmt/format.h>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_GROUPS_SHOWN = 7;
constexpr std::size_t ZORV_LOCKS_SHOWN = 4;
constexpr std::size_t ZORV_FUNCTIONS_SHOWN = 6;
constexpr std::size_t ZORV_NAME_WIDTH = 22; // of threads, where the screen has 80 columns
constexpr std::size_t ZORV_BAR_WIDTH = 12;  // the same
constexpr std::size_t ZORV_USUAL_WIDTH = 80;

// Room beyond 80 columns is shared by names and bars.
std::size_t NameWidth(const Screen& screen)
{
    const std::size_t more = screen.m_width > ZORV_USUAL_WIDTH ? (screen.m_width - ZORV_USUAL_WIDTH) / 3 : 0;
    return ZORV_NAME_WIDTH + more;
}

std::size_t BarWidth(const Screen& screen)
{
    const std::size_t others = ZORV_USUAL_WIDTH - ZORV_BAR_WIDTH - ZORV_NAME_WIDTH + NameWidth(screen);
    return screen.m_width > others ? screen.m_width - others : 0;
}

// Each kind's letter as often as its share asks for. What rounding leaves over goes to the largest fractions.
std::string BarOf(const ThreadTimes& times, const Screen& screen)
{
    const std::size_t width = BarWidth(screen);
    double whole = 0;
    for (const uint64_t time : times.m_timeNs)
    {
        whole += static_cast<double>(time);
    }
    std::string bar;
    double exact = 0;
    std::size_t drawn = 0;
    for (int kind = 0; kind < ZORV_TIME_KIND_COUNT && whole > 0; ++kind)
    {
        exact += static_cast<double>(times.m_timeNs[kind]) / whole * static_cast<double>(width);
        const auto end = static_cast<std::size_t>(std::lround(exact));
        const TimeKindForm& form = FormOf(static_cast<TimeKind>(kind));
        bar += Coloured(screen, std::string(end - drawn, form.m_letter), form.m_pColour);
        drawn = end;
    }
    return bar;
}

std::string GroupName(const ThreadTimes& group, bool hasManyProcesses)
{
    std::string name = NameOr(group.m_name, "-");
    if (hasManyProcesses)
    {
        name = fmt::format("{}/{}", NameOr(group.m_pProcess->m_name, "-"), name);
    }
    return group.m_threads == 1 ? name : fmt::format("{} × {}", name, group.m_threads);
}

void WriteGroup(Lines out, const ThreadTimes& group, bool hasManyProcesses, const Screen& screen)
{
    fmt::format_to(out, "  {} {:>7}", Fitted(GroupName(group, hasManyProcesses), NameWidth(screen)),
                   DurationText(group.m_wallNs / group.m_threads));
    for (int kind = 0; kind < ZORV_TIME_KIND_COUNT; ++kind)
    {
        const auto timeKind = static_cast<TimeKind>(kind);
        fmt::format_to(out, " {:>{}}", PercentText(ShareOf(group, timeKind)),
                       std::max<std::size_t>(3, WidthOf(FormOf(timeKind).m_pTitle)));
    }
    fmt::format_to(out, "  {}\n", BarOf(group, screen));
}

std::string ShortKind(const CallKind& kind)
{
    const std::string name = kind.m_pName;
    return name == "condition" ? "cond" : name == "spinlock" ? "spin" : name == "semaphore" ? "sem" : name;
}

void WriteLockPeople(Lines out, const SessionFacts& session, const LockFacts& lock, const Screen& screen)
{
    std::string text;
    for (const LockAcquirer& acquirer : lock.m_lastAcquirers)
    {
        if (acquirer.m_time != 0)
        {
            text += (text.empty() ? "last acquired by " : ", ") +
                    ThreadLabel(session, lock.m_process, acquirer.m_tid);
        }
    }
    if (lock.m_calls.m_neverReturned != 0)
    {
        text += (text.empty() ? "" : "; ") + Plural(lock.m_calls.m_neverReturned, "thread", "threads") +
                " never came back, after " + DurationText(lock.m_stuckNs) + " at least";
    }
    if (lock.m_isHeap && lock.m_firstTid != 0)
    {
        text += (text.empty() ? "first used by " : "; first used by ") +
                ThreadLabel(session, lock.m_process, lock.m_firstTid);
    }
    if (!text.empty())
    {
        fmt::format_to(out, "      {}\n", CutTo(text, screen.m_width - 6));
    }
}

// "(server, queue.cpp:120)"; without a line the module alone.
std::string PlaceText(const Function& function)
{
    const std::string module = PrintableText(ModuleName(function.m_module));
    if (function.m_line == 0)
    {
        return " (" + CutTo(module, 24) + ")";
    }
    const std::string source = PrintableText(ModuleName(function.m_source));
    return fmt::format(" ({}, {}:{})", CutTo(module, 14), CutTo(source, 16), function.m_line);
}

void WriteFunction(Lines out, const FunctionRow& row, double wholeNs, const Screen& screen)
{
    const std::string place = PlaceText(*row.m_pFunction);
    fmt::format_to(out, "  {:>7} {:>6.1f} {:>6.1f}  {}{}\n", DurationText(WholeNs(row.m_count.m_selfNs)),
                   100 * row.m_count.m_selfNs / wholeNs, 100 * row.m_count.m_totalNs / wholeNs,
                   CutName(PrintableText(row.m_pFunction->m_name), screen.m_width - 25 - WidthOf(place)),
                   place);
}

// Its own code stands on every stack that goes through a traced call or a thread's start.
bool IsWayThroughAgent(const FunctionRow& row)
{
    return row.m_count.m_self == 0 && ModuleName(row.m_pFunction->m_module) == ZORV_AGENT_FILE;
}

std::size_t RowsOf(const ReportShape& shape, std::size_t usual, std::size_t all)
{
    const std::size_t wished = shape.m_rows.value_or(usual);
    return wished == 0 ? all : std::min(wished, all);
}

std::optional<TimeKind> TimeKindCalled(const std::string& column)
{
    for (int kind = 0; kind < ZORV_TIME_KIND_COUNT; ++kind)
    {
        const TimeKindForm& form = FormOf(static_cast<TimeKind>(kind));
        if (column == form.m_pName || column == form.m_pTitle)
        {
            return static_cast<TimeKind>(kind);
        }
    }
    return std::nullopt;
}

// Largest first, names in the order of the alphabet.
void SortGroups(std::vector<ThreadTimes>* pGroups, const std::string& column)
{
    const auto sortBy = [pGroups](const auto& key)
    {
        std::stable_sort(pGroups->begin(), pGroups->end(),
                         [&key](const ThreadTimes& a, const ThreadTimes& b) { return key(a) < key(b); });
    };
    if (const std::optional<TimeKind> kind = TimeKindCalled(column))
    {
        sortBy([&kind](const ThreadTimes& group) { return -ShareOf(group, *kind); });
    }
    else if (column == "wallNs" || column == "wall")
    {
        sortBy([](const ThreadTimes& group) { return ~(group.m_wallNs / group.m_threads); });
    }
    else if (column == "calls")
    {
        sortBy([](const ThreadTimes& group) { return ~group.m_calls; });
    }
    else if (column == "process" || column == "thread")
    {
        sortBy([&column](const ThreadTimes& group)
               { return column == "thread" ? group.m_name : group.m_pProcess->m_name; });
    }
    else if (column == "pid" || column == "tid")
    {
        sortBy([&column](const ThreadTimes& group)
               { return -(column == "tid" ? int64_t{group.m_tid} : int64_t{group.m_pProcess->m_id.m_pid}); });
    }
}

} // namespace

void WriteTimeTable(Lines out, const SessionFacts& session, const Screen& screen, const ReportShape& shape)
{
    std::vector<ThreadTimes> groups = GroupedByName(TimesOfThreads(session));
    SortGroups(&groups, shape.m_sort);
    if (groups.empty())
    {
        return;
    }
    const std::size_t shown = RowsOf(shape, ZORV_GROUPS_SHOWN, groups.size());
    fmt::format_to(out, "\n{} {:>7}", Heading(screen, Fitted("WHERE THE TIME WENT, %", NameWidth(screen) + 2)),
                   "wall");
    std::string legend;
    for (int kind = 0; kind < ZORV_TIME_KIND_COUNT; ++kind)
    {
        const TimeKindForm& form = FormOf(static_cast<TimeKind>(kind));
        fmt::format_to(out, " {:>3}", form.m_pTitle);
        legend += Coloured(screen, std::string(1, form.m_letter), form.m_pColour);
    }
    fmt::format_to(out, "  {}\n", BarWidth(screen) < ZORV_TIME_KIND_COUNT ? "" : legend);
    for (std::size_t i = 0; i < shown; ++i)
    {
        WriteGroup(out, groups[i], session.m_processes.size() > 1, screen);
    }
    if (groups.size() > shown)
    {
        fmt::format_to(out, "  and {} more\n", Plural(groups.size() - shown, "group", "groups"));
    }
}

void WriteLockTable(Lines out, const SessionFacts& session, const Screen& screen, const ReportShape& shape)
{
    if (session.m_locks.empty())
    {
        return;
    }
    constexpr std::size_t numbers = 57;
    const std::size_t nameWidth = screen.m_width - 2 - numbers;
    fmt::format_to(out, "\n{} {:<7} {:>7} {:>7} {:>7} {:>7} {:>7} {:>7}\n",
                   Heading(screen, Fitted("LOCKS YOU WAIT FOR", nameWidth + 2)), "kind", "waits", "total",
                   "mean", "p95", "longest", "waiters");
    const std::size_t shown = RowsOf(shape, ZORV_LOCKS_SHOWN, session.m_locks.size());
    for (std::size_t i = 0; i < shown; ++i)
    {
        const LockFacts& lock = session.m_locks[i];
        const CallFacts& calls = lock.m_calls;
        const auto timeText = [&calls](uint64_t time) // of waits that are over
        { return calls.m_durations.m_count == 0 ? "-" : DurationText(time); };
        fmt::format_to(out, "  {} {:<7} {:>7} {:>7} {:>7} {:>7} {:>7} {:>7.1f}\n",
                       Fitted(CutName(PrintableText(lock.m_name), nameWidth), nameWidth),
                       ShortKind(*lock.m_pKind), calls.m_calls, DurationText(WaitedNs(lock)),
                       timeText(MeanNs(calls)), timeText(Percentile(calls.m_durations, 95)),
                       timeText(calls.m_longestNs), MeanWaiters(lock));
        WriteLockPeople(out, session, lock, screen);
    }
    if (session.m_lockCount > shown)
    {
        fmt::format_to(out, "  and {} more\n", Plural(session.m_lockCount - shown, "lock", "locks"));
    }
}

void WriteFunctionTable(Lines out, const SessionFacts& session, const Screen& screen, const ReportShape& shape)
{
    const uint64_t samples = SampleCount(session);
    if (samples == 0)
    {
        return;
    }
    std::vector<FunctionRow> rows = RankedFunctions(*session.m_pSymbolizer, FunctionsOf(session));
    std::erase_if(rows, IsWayThroughAgent);
    const std::size_t all = rows.size();
    rows.resize(RowsOf(shape, ZORV_FUNCTIONS_SHOWN, all));
    fmt::format_to(out, "\n{} {}, each for {}\n  {:>7} {:>6} {:>6}  {}\n", Heading(screen, "WHERE CPU GOES"),
                   Plural(samples, "sample", "samples"), DurationText(session.m_periodNs), "self", "self%",
                   "total%", "function");
    for (const FunctionRow& row : rows)
    {
        WriteFunction(out, row, SampledNs(session), screen);
    }
    if (all > rows.size())
    {
        fmt::format_to(out, "  and {} more\n", Plural(all - rows.size(), "function", "functions"));
    }
}

} // namespace qelix
