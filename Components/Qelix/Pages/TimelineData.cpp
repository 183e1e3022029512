#include "Pages/TimelineData.h"

#include "Reader/Records.h"
#include "Report/DurationHistogram.h"
#include "Report/SampleWeight.h"

#include <algorithm>
#include <numeric>
#include <tuple>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_LONGEST_TEXT = 300;

LifeSpan SpanOf(const Timeline& timeline)
{
    LifeSpan span;
    for (const TimelineThread& thread : timeline.m_threads)
    {
        Join(&span, thread.m_span);
    }
    return span;
}

PageJson TextsJson(const TextTable& table)
{
    PageJson list = PageJson::array();
    for (const std::string& text : table.m_texts)
    {
        list.push_back(text.substr(0, ZORV_LONGEST_TEXT));
    }
    return list;
}

PageJson GroupsJson()
{
    PageJson list = PageJson::array();
    for (int kind = 0; kind < ZORV_TIME_KIND_COUNT; ++kind)
    {
        const TimeKindForm& form = FormOf(static_cast<TimeKind>(kind));
        list.push_back(
            {{"id", form.m_pName}, {"letter", std::string(1, form.m_letter)}, {"label", form.m_pTitle}});
    }
    return list;
}

uint64_t RecordedNs(const TimelineThread& thread)
{
    uint64_t sum = WholeNs(static_cast<double>(thread.m_samples) * thread.m_sampleNs);
    for (const uint64_t time : thread.m_timeNs)
    {
        sum = SaturatingAdd(sum, time);
    }
    return sum;
}

// The threads that are shown, those of a process together; the busiest process and thread first.
std::vector<uint32_t> ShownThreads(const Timeline& timeline)
{
    std::vector<uint32_t> shown(timeline.m_threads.size());
    std::iota(shown.begin(), shown.end(), 0);
    const auto recorded = [&](uint32_t at) { return RecordedNs(timeline.m_threads[at]); };
    std::stable_sort(shown.begin(), shown.end(),
                     [&](uint32_t a, uint32_t b) { return recorded(a) > recorded(b); });
    shown.resize(std::min(shown.size(), timeline.m_budget.m_threads));
    std::vector<MarkedPid> processes; // in the order of their busiest threads
    const auto place = [&](uint32_t at)
    {
        const MarkedPid& process = timeline.m_threads[at].m_process;
        const auto found = std::find(processes.begin(), processes.end(), process);
        return found != processes.end() ? found - processes.begin()
                                        : (processes.push_back(process), std::ssize(processes) - 1);
    };
    std::vector<std::pair<std::ptrdiff_t, uint32_t>> placed;
    for (const uint32_t at : shown)
    {
        placed.emplace_back(place(at), at);
    }
    std::stable_sort(placed.begin(), placed.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::transform(placed.begin(), placed.end(), shown.begin(), [](const auto& entry) { return entry.second; });
    return shown;
}

PageJson RunsJson(std::vector<TimelineRun> runs, uint64_t origin)
{
    std::sort(runs.begin(), runs.end(),
              [](const TimelineRun& a, const TimelineRun& b) { return a.m_start < b.m_start; });
    PageJson list = PageJson::array();
    for (uint64_t before = origin; const TimelineRun& run : runs)
    {
        const uint64_t start = std::max(run.m_start, origin);
        list.insert(list.end(),
                    {start - before, std::max(run.m_end, start) - start, run.m_samples, run.m_name});
        before = start;
    }
    return list;
}

struct ThreadLists
{
    std::vector<const TimelineCall*> m_calls;
    std::vector<std::pair<uint64_t, const TimelineCell*>> m_cells;
};

PageJson WaitsJson(std::vector<const TimelineCall*>* pCalls, uint64_t origin)
{
    std::sort(pCalls->begin(), pCalls->end(),
              [](const TimelineCall* pA, const TimelineCall* pB) // what lies inside comes behind
              { return std::tuple(pA->m_start, pB->m_end) < std::tuple(pB->m_start, pA->m_end); });
    PageJson list = PageJson::array();
    for (uint64_t before = origin; const TimelineCall* pCall : *pCalls)
    {
        list.push_back(pCall->m_start - before);
        list.push_back(pCall->m_end == ZORV_TIME_NOT_ENDED ? PageJson(-1)
                                                           : PageJson(pCall->m_end - pCall->m_start));
        list.insert(list.end(), {pCall->m_kind, pCall->m_name, pCall->m_lock});
        before = pCall->m_start;
    }
    return list;
}

PageJson CellsJson(std::vector<std::pair<uint64_t, const TimelineCell*>>* pCells, uint64_t firstCell)
{
    std::sort(pCells->begin(), pCells->end());
    PageJson list = PageJson::array();
    uint64_t before = firstCell;
    for (const auto& [number, pCell] : *pCells)
    {
        for (int kind = 0; kind < ZORV_TIME_KIND_COUNT; ++kind)
        {
            if (pCell->m_calls[kind] != 0 || pCell->m_timeNs[kind] != 0)
            {
                list.insert(list.end(), {number - before, static_cast<uint64_t>(kind), pCell->m_calls[kind],
                                         pCell->m_timeNs[kind]});
                before = number;
            }
        }
    }
    return list;
}

PageJson ThreadJson(const TimelineThread& thread, const LifeSpan& span)
{
    const bool isSeen = thread.m_span.m_last != 0; // by a record that has a time
    PageJson json = {{"pid", thread.m_process.m_pid}, {"mark", thread.m_process.m_mark}};
    json["tid"] = thread.m_tid;
    json["rank"] = thread.m_mpiRankId;
    json["process"] = thread.m_processName;
    json["name"] = thread.m_name;
    json["begin"] = isSeen ? thread.m_span.m_first - span.m_first : 0;
    json["end"] = isSeen ? thread.m_span.m_last - span.m_first : 0;
    json["calls"] = thread.m_calls;
    json["samples"] = thread.m_samples;
    json["sampleNs"] = thread.m_sampleNs;
    return json;
}

// Also says what threads that are not shown come to.
PageJson ThreadsJson(Timeline* pTimeline, const LifeSpan& span, PageJson* pHidden)
{
    std::vector<ThreadLists> lists(pTimeline->m_threads.size());
    for (const TimelineCall& call : pTimeline->m_calls)
    {
        lists[call.m_thread].m_calls.push_back(&call);
    }
    for (const auto& [key, cell] : pTimeline->m_cells)
    {
        lists[key.m_thread].m_cells.emplace_back(key.m_cell, &cell);
    }
    uint64_t calls = 0;
    uint64_t samples = 0;
    for (const TimelineThread& thread : pTimeline->m_threads)
    {
        calls += thread.m_calls;
        samples += thread.m_samples;
    }
    PageJson threads = PageJson::array();
    for (const uint32_t at : ShownThreads(*pTimeline))
    {
        TimelineThread& thread = pTimeline->m_threads[at];
        PageJson json = ThreadJson(thread, span);
        json["runs"] = RunsJson(std::move(thread.m_runs), span.m_first);
        json["waits"] = WaitsJson(&lists[at].m_calls, span.m_first);
        json["cells"] = CellsJson(&lists[at].m_cells, span.m_first >> pTimeline->m_cellShift);
        threads.push_back(std::move(json));
        calls -= thread.m_calls;
        samples -= thread.m_samples;
    }
    *pHidden = {
        {"threads", pTimeline->m_threads.size() - threads.size()}, {"calls", calls}, {"samples", samples}};
    return threads;
}

uint64_t ShortestAloneNs(const Timeline& timeline)
{
    uint64_t shortest = UINT64_MAX;
    for (const TimelineCall& call : timeline.m_calls)
    {
        shortest =
            std::min(shortest, call.m_end == ZORV_TIME_NOT_ENDED ? UINT64_MAX : call.m_end - call.m_start);
    }
    return timeline.m_calls.empty() ? 0 : shortest;
}

} // namespace

PageJson TimelineData(Timeline timeline)
{
    const LifeSpan span = SpanOf(timeline);
    const uint64_t origin = span.m_last == 0 ? 0 : span.m_first;
    uint64_t untimed = 0;
    for (const TimelineThread& thread : timeline.m_threads)
    {
        untimed += thread.m_untimed;
    }
    PageJson hidden;
    PageJson threads = ThreadsJson(&timeline, {origin, span.m_last}, &hidden);
    const uint64_t firstCellAt = origin >> timeline.m_cellShift << timeline.m_cellShift;
    PageJson json = {{"originNs", std::to_string(origin)}, {"spanNs", LengthOf(span)}};
    json["cellNs"] = uint64_t{1} << timeline.m_cellShift;
    json["cellOriginNs"] = -static_cast<int64_t>(origin - firstCellAt);
    json["alone"] = timeline.m_calls.size();
    json["binned"] = timeline.m_binned;
    json["shortestAloneNs"] = ShortestAloneNs(timeline);
    json["untimed"] = untimed;
    json["firstRunGapNs"] = FirstRunGapNs(timeline);
    json["runGapNs"] = timeline.m_runGapNs;
    json["hidden"] = std::move(hidden);
    json["groups"] = GroupsJson();
    json["names"] = TextsJson(timeline.m_names);
    json["locks"] = TextsJson(timeline.m_locks);
    json["threads"] = std::move(threads);
    return json;
}

} // namespace qelix
