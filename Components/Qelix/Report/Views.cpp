#include "Report/Views.h"

#include "Report/TextParts.h"
#include "Report/ThreadTimes.h"
#include "Session/Failure.h"

#include <algorithm>
#include <fmt/format.h>
#include <fnmatch.h>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_TOTAL_OF_LOCKS = 4; // the column

uint64_t IdOf(int64_t id)
{
    return static_cast<uint64_t>(id);
}

template <typename T> std::string Label(const std::string& name, const T& id)
{
    return fmt::format("{} ({})", name.empty() ? "-" : name, id);
}

// Without a duration there is no time to tell.
void AddTime(std::vector<Cell>* pRow, bool isTimed, uint64_t nanoseconds)
{
    pRow->emplace_back();
    if (isTimed)
    {
        pRow->back() = nanoseconds;
    }
}

// The numbers that every table of calls has.
constexpr TableColumn g_numberColumns[] = {
    {"calls", "calls", ZORV_CELL_COUNT},      {"totalNs", "total", ZORV_CELL_TIME},
    {"meanNs", "mean", ZORV_CELL_TIME},       {"p95Ns", "p95", ZORV_CELL_TIME, true},
    {"longestNs", "longest", ZORV_CELL_TIME},
};

void AddNumberColumns(Table* pTable)
{
    pTable->m_columns.insert(pTable->m_columns.end(), std::begin(g_numberColumns), std::end(g_numberColumns));
}

void AddNumbers(std::vector<Cell>* pRow, const CallFacts& facts)
{
    pRow->emplace_back(facts.m_calls);
    for (const uint64_t time :
         {facts.m_totalNs, MeanNs(facts), Percentile(facts.m_durations, 95), facts.m_longestNs})
    {
        AddTime(pRow, facts.m_durations.m_count != 0, time);
    }
}

std::string AcquirersText(const SessionFacts& session, const LockFacts& lock)
{
    std::string text;
    for (const LockAcquirer& acquirer : lock.m_lastAcquirers)
    {
        if (acquirer.m_time != 0)
        {
            text += (text.empty() ? "" : ", ") + ThreadLabel(session, lock.m_process, acquirer.m_tid);
        }
    }
    return text;
}

bool IsCalled(const LockFacts& lock, const std::string& name)
{
    return lock.m_name == name || fmt::format("{:#x}", lock.m_address) == name ||
           fnmatch(name.c_str(), lock.m_name.c_str(), 0) == 0;
}

void AddWaiters(Table* pTable, const SessionFacts& session, const LockFacts& lock)
{
    for (const LockWaiter& waiter : lock.m_waiters)
    {
        std::vector<Cell>& row =
            AddRow(pTable, lock.m_name, std::string(lock.m_pKind->m_pName), IdOf(lock.m_process.m_pid),
                   ThreadLabel(session, lock.m_process, waiter.m_tid), waiter.m_waits);
        for (const uint64_t time : {waiter.m_totalNs, waiter.m_totalNs / waiter.m_waits, waiter.m_longestNs})
        {
            AddTime(&row, waiter.m_totalNs != 0, time);
        }
        AddMark(pTable, session, lock.m_process);
    }
}

std::string NoteOn(const SessionFacts& session, const LockFacts& lock)
{
    std::string note =
        fmt::format("{} ({}, {:#x}) of process {}: {:.1f} waiting on average while it was waited for",
                    PrintableText(lock.m_name), lock.m_pKind->m_pName, lock.m_address,
                    ProcessText(lock.m_process), MeanWaiters(lock));
    if (lock.m_firstTid != 0)
    {
        note += "; first used by " + ThreadLabel(session, lock.m_process, lock.m_firstTid);
    }
    const std::string acquirers = AcquirersText(session, lock);
    return note + (acquirers.empty() ? "" : "; last acquired by " + acquirers);
}

bool IsOneOf(const std::vector<TimeKind>& kinds, const CallKind& kind)
{
    return kinds.empty() || std::find(kinds.begin(), kinds.end(), TimeKindOf(kind)) != kinds.end();
}

// Processes of merged sessions can have one id; what tells them apart is not worth a column elsewhere.
bool IsMerged(const SessionFacts& session)
{
    return std::any_of(session.m_processes.begin(), session.m_processes.end(),
                       [](const ProcessFacts& process) { return !process.m_id.m_mark.empty(); });
}

} // namespace

void AddMarkColumn(Table* pTable, const SessionFacts& session)
{
    if (IsMerged(session))
    {
        pTable->m_columns.push_back({"mark", "mark", ZORV_CELL_TEXT});
    }
}

void AddMark(Table* pTable, const SessionFacts& session, const MarkedPid& process)
{
    if (IsMerged(session))
    {
        pTable->m_rows.back().emplace_back(process.m_mark);
    }
}

Table ThreadsView(const SessionFacts& session)
{
    Table table;
    table.m_columns = {{"process", "process", ZORV_CELL_TEXT}, {"pid", "pid", ZORV_CELL_COUNT, true},
                       {"thread", "thread", ZORV_CELL_TEXT},   {"tid", "tid", ZORV_CELL_COUNT},
                       {"wallNs", "wall", ZORV_CELL_TIME},     {"calls", "calls", ZORV_CELL_COUNT, true}};
    for (int kind = 0; kind < ZORV_TIME_KIND_COUNT; ++kind)
    {
        const TimeKindForm& form = FormOf(static_cast<TimeKind>(kind));
        table.m_columns.push_back({form.m_pName, form.m_pTitle, ZORV_CELL_SHARE});
    }
    AddMarkColumn(&table, session);
    for (const ThreadTimes& times : TimesOfThreads(session))
    {
        std::vector<Cell>& row =
            AddRow(&table, TextCell(times.m_pProcess->m_name), IdOf(times.m_pProcess->m_id.m_pid),
                   TextCell(times.m_name), IdOf(times.m_tid), times.m_wallNs, times.m_calls);
        for (int kind = 0; kind < ZORV_TIME_KIND_COUNT; ++kind)
        {
            row.emplace_back(ShareOf(times, static_cast<TimeKind>(kind)));
        }
        AddMark(&table, session, times.m_pProcess->m_id);
    }
    return table;
}

Table LocksView(const SessionFacts& session)
{
    Table table;
    table.m_columns = {
        {"lock", "lock", ZORV_CELL_TEXT}, {"kind", "kind", ZORV_CELL_TEXT}, {"pid", "pid", ZORV_CELL_COUNT}};
    AddNumberColumns(&table);
    table.m_columns.push_back({"meanWaiters", "waiters", ZORV_CELL_NUMBER});
    table.m_columns.push_back({"lastAcquirers", "last acquired by", ZORV_CELL_TEXT});
    AddMarkColumn(&table, session);
    for (const LockFacts& lock : session.m_locks)
    {
        std::vector<Cell>& row =
            AddRow(&table, lock.m_name, std::string(lock.m_pKind->m_pName), IdOf(lock.m_process.m_pid));
        AddNumbers(&row, lock.m_calls);
        if (lock.m_stuckNs != 0)
        {
            row[ZORV_TOTAL_OF_LOCKS] = WaitedNs(lock); // what is not over yet counts as far as it went
        }
        row.emplace_back(MeanWaiters(lock));
        row.emplace_back(TextCell(AcquirersText(session, lock)));
        AddMark(&table, session, lock.m_process);
    }
    return table;
}

Table LockView(const SessionFacts& session, const std::string& name)
{
    Table table;
    table.m_columns = {{"lock", "lock", ZORV_CELL_TEXT},    {"kind", "kind", ZORV_CELL_TEXT},
                       {"pid", "pid", ZORV_CELL_COUNT},     {"thread", "thread", ZORV_CELL_TEXT},
                       {"calls", "calls", ZORV_CELL_COUNT}, {"totalNs", "total", ZORV_CELL_TIME},
                       {"meanNs", "mean", ZORV_CELL_TIME},  {"longestNs", "longest", ZORV_CELL_TIME}};
    AddMarkColumn(&table, session);
    for (const LockFacts& lock : session.m_locks)
    {
        if (IsCalled(lock, name))
        {
            AddWaiters(&table, session, lock);
            table.m_notes.push_back(NoteOn(session, lock));
        }
    }
    if (table.m_rows.empty())
    {
        throw Failure(ZORV_FAILURE_NO_DATA, "no lock of {} is called {}; qelix locks lists them",
                      session.m_path, name)
            .At(session.m_path);
    }
    SortTable(&table, "totalNs");
    return table;
}

Table CallsView(const SessionFacts& session, const std::vector<TimeKind>& kinds)
{
    Table table;
    table.m_columns = {{"call", "call", ZORV_CELL_TEXT},
                       {"class", "class", ZORV_CELL_TEXT},
                       {"process", "process", ZORV_CELL_TEXT},
                       {"thread", "thread", ZORV_CELL_TEXT}};
    AddNumberColumns(&table);
    for (const ProcessFacts& process : session.m_processes)
    {
        for (const ThreadFacts& thread : process.m_trace.m_threads)
        {
            for (const NamedCalls& calls : thread.m_calls)
            {
                if (IsOneOf(kinds, *calls.m_pKind))
                {
                    std::vector<Cell>& row = AddRow(
                        &table, calls.m_name, std::string(TraceClassName(ClassOf(*calls.m_pKind))),
                        Label(process.m_name, ProcessText(process.m_id)), Label(thread.m_name, thread.m_tid));
                    AddNumbers(&row, calls.m_facts);
                }
            }
        }
    }
    SortTable(&table, "totalNs");
    return table;
}

} // namespace qelix
