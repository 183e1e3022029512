#include "Pages/Timeline.h"

#include "Reader/Records.h"
#include "Report/DurationHistogram.h"

#include <algorithm>

namespace qelix
{
namespace
{

constexpr unsigned ZORV_COARSEST_SHIFT = 62;
constexpr uint64_t ZORV_MOST_CELLS_A_CALL = 4096;

uint64_t LengthOf(const TimelineCall& call)
{
    return call.m_end == ZORV_TIME_NOT_ENDED ? UINT64_MAX : call.m_end - call.m_start;
}

bool IsLonger(const TimelineCall& a, const TimelineCall& b)
{
    return LengthOf(a) > LengthOf(b);
}

void Coarsen(Timeline* pTimeline)
{
    std::unordered_map<CellKey, TimelineCell, CellKeyHash> coarser;
    ++pTimeline->m_cellShift;
    for (const auto& [key, cell] : pTimeline->m_cells)
    {
        TimelineCell& sum = coarser[{key.m_thread, key.m_cell >> 1}];
        for (int kind = 0; kind < ZORV_TIME_KIND_COUNT; ++kind)
        {
            sum.m_calls[kind] += cell.m_calls[kind];
            sum.m_timeNs[kind] = SaturatingAdd(sum.m_timeNs[kind], cell.m_timeNs[kind]);
        }
    }
    pTimeline->m_cells = std::move(coarser);
}

void FitCells(Timeline* pTimeline)
{
    while (pTimeline->m_cells.size() > pTimeline->m_budget.m_cells &&
           pTimeline->m_cellShift < ZORV_COARSEST_SHIFT)
    {
        Coarsen(pTimeline);
    }
}

// Each cell gets what the call took of it.
void AddToCells(Timeline* pTimeline, const TimelineCall& call)
{
    ++pTimeline->m_binned;
    const uint64_t length = call.m_end == ZORV_TIME_NOT_ENDED ? 0 : LengthOf(call);
    while (length >> pTimeline->m_cellShift > ZORV_MOST_CELLS_A_CALL)
    {
        Coarsen(pTimeline);
    }
    const unsigned shift = pTimeline->m_cellShift;
    ++pTimeline->m_cells[{call.m_thread, call.m_start >> shift}].m_calls[call.m_kind];
    const uint64_t end = call.m_start + length;
    for (uint64_t at = call.m_start; at < end;)
    {
        const uint64_t cell = at >> shift;
        const uint64_t cellLast =
            (cell << shift) + ((uint64_t{1} << shift) - 1); // its end may be beyond 64 bits
        const uint64_t stop = std::min(end - 1, cellLast) + 1;
        uint64_t& sum = pTimeline->m_cells[{call.m_thread, cell}].m_timeNs[call.m_kind];
        sum = SaturatingAdd(sum, stop - at);
        at = stop;
    }
    FitCells(pTimeline);
}

void FitCalls(Timeline* pTimeline)
{
    std::vector<TimelineCall>& calls = pTimeline->m_calls;
    while (calls.size() > pTimeline->m_budget.m_calls)
    {
        std::pop_heap(calls.begin(), calls.end(), IsLonger);
        const TimelineCall shortest = calls.back();
        calls.pop_back();
        AddToCells(pTimeline, shortest);
    }
}

// Of the two functions the one that was met more often than all others together, if there is such a one.
void Vote(TimelineRun* pRun, uint32_t name, uint64_t votes)
{
    if (pRun->m_name == name)
    {
        pRun->m_votes += votes;
    }
    else if (pRun->m_votes >= votes)
    {
        pRun->m_votes -= votes;
    }
    else
    {
        pRun->m_name = name;
        pRun->m_votes = votes - pRun->m_votes;
    }
}

bool IsNear(const TimelineRun& run, uint64_t start, uint64_t gap)
{
    return start >= run.m_start && (start <= run.m_end || start - run.m_end <= gap);
}

void JoinRuns(Timeline* pTimeline, std::vector<TimelineRun>* pRuns)
{
    std::sort(pRuns->begin(), pRuns->end(),
              [](const TimelineRun& a, const TimelineRun& b) { return a.m_start < b.m_start; });
    std::vector<TimelineRun> joined;
    for (const TimelineRun& run : *pRuns)
    {
        if (joined.empty() || !IsNear(joined.back(), run.m_start, pTimeline->m_runGapNs))
        {
            joined.push_back(run);
            continue;
        }
        joined.back().m_end = std::max(joined.back().m_end, run.m_end);
        joined.back().m_samples += run.m_samples;
        Vote(&joined.back(), run.m_name, run.m_votes);
    }
    *pRuns = std::move(joined);
}

void FitRuns(Timeline* pTimeline)
{
    constexpr uint64_t widest = uint64_t{1} << ZORV_COARSEST_SHIFT;
    while (pTimeline->m_runs > pTimeline->m_budget.m_runs && pTimeline->m_runGapNs < widest)
    {
        pTimeline->m_runGapNs = std::max<uint64_t>(pTimeline->m_runGapNs * 2, 1);
        pTimeline->m_runs = 0;
        for (TimelineThread& thread : pTimeline->m_threads)
        {
            JoinRuns(pTimeline, &thread.m_runs);
            pTimeline->m_runs += thread.m_runs.size();
        }
    }
}

} // namespace

uint64_t FirstRunGapNs(const Timeline& timeline)
{
    return timeline.m_periodNs + timeline.m_periodNs / 2; // a tick that came late
}

uint32_t IndexOfText(TextTable* pTable, const std::string& text)
{
    const auto next = static_cast<uint32_t>(pTable->m_texts.size());
    const auto [at, isNew] = pTable->m_indexOf.emplace(text, next);
    if (isNew)
    {
        pTable->m_texts.push_back(text);
    }
    return at->second;
}

void AddTimelineCall(Timeline* pTimeline, const TimelineCall& call)
{
    TimelineThread& thread = pTimeline->m_threads[call.m_thread];
    ++thread.m_calls;
    SeeAt(&thread.m_span, call.m_start);
    SeeAt(&thread.m_span, call.m_end);
    if (call.m_start == 0 || call.m_end == 0)
    {
        ++thread.m_untimed;
        return;
    }
    if (call.m_end != ZORV_TIME_NOT_ENDED)
    {
        thread.m_timeNs[call.m_kind] = SaturatingAdd(thread.m_timeNs[call.m_kind], LengthOf(call));
    }
    std::vector<TimelineCall>& calls = pTimeline->m_calls;
    if (calls.size() >= pTimeline->m_budget.m_calls && !calls.empty() && !IsLonger(call, calls.front()))
    {
        AddToCells(pTimeline, call);
        return;
    }
    calls.push_back(call);
    std::push_heap(calls.begin(), calls.end(), IsLonger);
    FitCalls(pTimeline);
}

void AddTimelineSample(Timeline* pTimeline, uint32_t thread, uint64_t time, uint32_t name)
{
    TimelineThread& sampled = pTimeline->m_threads[thread];
    ++sampled.m_samples;
    SeeAt(&sampled.m_span, time);
    const uint64_t start = time - std::min(time, pTimeline->m_periodNs); // it ran before the timer fired
    std::vector<TimelineRun>& runs = sampled.m_runs;
    if (!runs.empty() && IsNear(runs.back(), start, pTimeline->m_runGapNs))
    {
        runs.back().m_end = std::max(runs.back().m_end, time);
        ++runs.back().m_samples;
        Vote(&runs.back(), name, 1);
        return;
    }
    runs.push_back({start, time, 1, name, 1});
    ++pTimeline->m_runs;
    FitRuns(pTimeline);
}

void Shrink(Timeline* pTimeline, const TimelineBudget& budget)
{
    pTimeline->m_budget = budget;
    FitCalls(pTimeline);
    FitCells(pTimeline);
    FitRuns(pTimeline);
}

} // namespace qelix
