// When the threads of a session ran and waited, in bounded memory: the longest calls one by one, shorter ones
// as what they took of each of many equal cells of time, samples as stretches.
#pragma once

#include "Report/LifeSpan.h"
#include "Report/TimeKinds.h"
#include "Session/ProcessWatch.h"

#include <array>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace qelix
{

// How many entries a time line holds at most; more are made coarser.
struct TimelineBudget
{
    std::size_t m_calls = 60000;
    std::size_t m_cells = 40000;
    std::size_t m_runs = 40000;
    std::size_t m_threads = 1500; // that are shown
};

struct TimelineCall
{
    uint64_t m_start = 0;
    uint64_t m_end = 0; // ZORV_TIME_NOT_ENDED: it has not returned
    uint32_t m_thread = 0;
    uint32_t m_name = 0; // of what was called
    int32_t m_lock = -1; // -1: it is on no lock
    TimeKind m_kind = ZORV_TIME_REST;
};

struct CellKey
{
    uint32_t m_thread;
    uint64_t m_cell; // start >> m_cellShift
    bool operator==(const CellKey&) const = default;
};

struct CellKeyHash
{
    std::size_t operator()(const CellKey& key) const
    {
        return (key.m_cell ^ (uint64_t{key.m_thread} << 40)) * 0x9E3779B97F4A7C15 >> 16;
    }
};

struct TimelineCell
{
    std::array<uint64_t, ZORV_TIME_KIND_COUNT> m_calls = {}; // that began in it
    KindTimes m_timeNs = {};
};

struct TimelineRun
{
    uint64_t m_start = 0;
    uint64_t m_end = 0;
    uint64_t m_samples = 0;
    uint32_t m_name = 0; // of a function that was often interrupted
    uint64_t m_votes = 0;
};

struct TimelineThread
{
    MarkedPid m_process;
    int32_t m_tid = 0;
    int32_t m_mpiRankId = 0;
    std::string m_processName;
    std::string m_name;
    LifeSpan m_span;
    uint64_t m_calls = 0; // all of them
    uint64_t m_untimed = 0;
    uint64_t m_samples = 0;
    double m_sampleNs = 0; // CPU time that one stands for
    KindTimes m_timeNs = {};
    std::vector<TimelineRun> m_runs;
};

struct TextTable
{
    std::vector<std::string> m_texts;
    std::unordered_map<std::string, uint32_t> m_indexOf;
};

uint32_t IndexOfText(TextTable* pTable, const std::string& text);

struct Timeline
{
    TimelineBudget m_budget;
    uint64_t m_periodNs = 0; // between the samples of a thread that runs
    uint64_t m_runGapNs = 0; // samples closer than this make one stretch
    unsigned m_cellShift = 10;
    TextTable m_names;
    TextTable m_locks;
    std::vector<TimelineThread> m_threads;
    std::vector<TimelineCall> m_calls; // a heap, the shortest first
    std::unordered_map<CellKey, TimelineCell, CellKeyHash> m_cells;
    uint64_t m_binned = 0; // calls in cells
    std::size_t m_runs = 0;
};

// What m_runGapNs begins with.
uint64_t FirstRunGapNs(const Timeline& timeline);

// Times are the records'; a call without times is only counted.
void AddTimelineCall(Timeline* pTimeline, const TimelineCall& call);
void AddTimelineSample(Timeline* pTimeline, uint32_t thread, uint64_t time, uint32_t name);

// Makes what is there already as coarse as a smaller budget asks for.
void Shrink(Timeline* pTimeline, const TimelineBudget& budget);

} // namespace qelix
