// Calls that never returned, and the circles in which their threads wait for each other.
#include "Report/TextParts.h"
#include "Report/Views.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <set>

namespace qelix
{
namespace
{

using CallOfThread = std::map<int32_t, const NeverReturned*>;

// The calls from this thread's on, each waiting for a lock that the next one's thread took last, until one is
// met again. Empty when the way ends before.
std::vector<const NeverReturned*> CircleFrom(const CallOfThread& callOf, int32_t tid)
{
    std::vector<const NeverReturned*> way;
    for (auto at = callOf.find(tid); at != callOf.end(); at = callOf.find(at->second->m_lastAcquirer))
    {
        const auto again = std::find(way.begin(), way.end(), at->second);
        if (again != way.end())
        {
            return {again, way.end()};
        }
        way.push_back(at->second);
    }
    return {};
}

std::string CircleText(const SessionFacts& session, const std::vector<const NeverReturned*>& circle)
{
    std::string text = "wait cycle: " + ThreadLabel(session, circle.front()->m_process, circle.front()->m_tid);
    for (const NeverReturned* pCall : circle)
    {
        text += fmt::format("{} waits for {}, whose last seen acquirer is {}",
                            pCall == circle.front() ? "" : ", who", PrintableText(pCall->m_lockName),
                            ThreadLabel(session, pCall->m_process, pCall->m_lastAcquirer));
    }
    return text;
}

// Each circle once: from its smallest thread on.
void AddCircles(Table* pTable, const SessionFacts& session, const ProcessFacts& process)
{
    CallOfThread callOf;
    for (const NeverReturned& call : process.m_trace.m_neverReturned)
    {
        if (IsHeldByOne(*call.m_pKind))
        {
            callOf[call.m_tid] = &call;
        }
    }
    std::set<int32_t> told;
    for (const auto& [tid, pCall] : callOf)
    {
        const std::vector<const NeverReturned*> circle = CircleFrom(callOf, tid);
        if (!circle.empty() && told.insert(circle.front()->m_tid).second)
        {
            pTable->m_notes.push_back(CircleText(session, circle));
            for (const NeverReturned* pMember : circle)
            {
                told.insert(pMember->m_tid);
            }
        }
    }
}

bool KnowsEveryLock(const SessionFacts& session)
{
    return session.m_settings.m_thresholds &&
           (*session.m_settings.m_thresholds)[ZORV_CLASS_PTHREAD].value_or(1) == 0;
}

} // namespace

Table BlockedView(const SessionFacts& session)
{
    Table table;
    table.m_columns = {
        {"process", "process", ZORV_CELL_COUNT},   {"thread", "thread", ZORV_CELL_TEXT},
        {"call", "call", ZORV_CELL_TEXT},          {"lock", "lock", ZORV_CELL_TEXT},
        {"atLeastNs", "at least", ZORV_CELL_TIME}, {"lastAcquirer", "last seen acquirer", ZORV_CELL_TEXT}};
    AddMarkColumn(&table, session);
    for (const ProcessFacts& process : session.m_processes)
    {
        for (const NeverReturned& call : process.m_trace.m_neverReturned)
        {
            std::vector<Cell>& row = AddRow(&table, static_cast<uint64_t>(call.m_process.m_pid),
                                            ThreadLabel(session, call.m_process, call.m_tid), call.m_name);
            row.emplace_back(TextCell(call.m_lockName));
            row.emplace_back(call.m_atLeastNs);
            row.emplace_back(TextCell(
                call.m_lastAcquirer == 0 ? "" : ThreadLabel(session, call.m_process, call.m_lastAcquirer)));
            AddMark(&table, session, call.m_process);
        }
        AddCircles(&table, session, process);
    }
    const bool isCutOff = std::any_of(session.m_processes.begin(), session.m_processes.end(),
                                      [](const ProcessFacts& process) { return process.m_trace.m_isCutOff; });
    if (table.m_rows.empty() && !isCutOff)
    {
        table.m_notes.push_back("every recorded call returned");
    }
    else if (isCutOff && !session.m_record.m_isStopped)
    {
        table.m_notes.push_back(
            "A process said no end: it was killed, or is still running, and what it was in "
            "last is in no file. Before a program that hangs is ended, qelix stop writes it.");
    }
    else if (session.m_record.m_isStopped && !table.m_rows.empty())
    {
        table.m_notes.push_back(
            "The recording was stopped before the program's end; what is under way then looks "
            "as if it never returned.");
    }
    if (!table.m_rows.empty() && !KnowsEveryLock(session))
    {
        table.m_notes.push_back(
            "Locks that were free when they were taken are below the threshold, so who took "
            "them is not known; --min pthread=0 records them.");
    }
    return table;
}

} // namespace qelix
