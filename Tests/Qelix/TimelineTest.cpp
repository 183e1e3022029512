// The time line stays within its budget, and loses nothing but detail.
#include "Pages/Timeline.h"
#include "Report/ClockShift.h"

#include "FileBytes.h"

#include <gtest/gtest.h>

namespace
{

using namespace qelix;

Timeline MadeTimeline(const TimelineBudget& budget)
{
    Timeline timeline;
    timeline.m_budget = budget;
    timeline.m_periodNs = 4'000'000;
    timeline.m_runGapNs = FirstRunGapNs(timeline);
    timeline.m_threads.resize(2);
    return timeline;
}

uint64_t CellNs(const Timeline& timeline, TimeKind kind)
{
    uint64_t sum = 0;
    for (const auto& [key, cell] : timeline.m_cells)
    {
        sum += cell.m_timeNs[kind];
    }
    return sum;
}

uint64_t AloneNs(const Timeline& timeline)
{
    uint64_t sum = 0;
    for (const TimelineCall& call : timeline.m_calls)
    {
        sum += call.m_end - call.m_start;
    }
    return sum;
}

TEST(Timeline, TheLongestCallsStandAloneAndTheOthersInCells)
{
    Timeline timeline = MadeTimeline({.m_calls = 10, .m_cells = 16});
    uint64_t total = 0;
    for (uint64_t i = 0; i < 1000; ++i)
    {
        const uint64_t length = 1 + (i * 7919) % 1000;
        AddTimelineCall(&timeline,
                        {1'000'000 + i * 2000, 1'000'000 + i * 2000 + length, 0, 0, -1, ZORV_TIME_LOCK});
        total += length;
    }
    EXPECT_EQ(timeline.m_calls.size(), 10u);
    EXPECT_EQ(timeline.m_binned, 990u);
    EXPECT_LE(timeline.m_cells.size(), 16u);
    EXPECT_EQ(AloneNs(timeline) + CellNs(timeline, ZORV_TIME_LOCK), total);
    for (const TimelineCall& call : timeline.m_calls)
    {
        EXPECT_GT(call.m_end - call.m_start, 990u);
    }
    EXPECT_EQ(timeline.m_threads[0].m_calls, 1000u);
}

TEST(Timeline, ACallIsSharedOutAmongTheCellsItLiesIn)
{
    Timeline timeline = MadeTimeline({.m_calls = 0, .m_cells = 100});
    AddTimelineCall(&timeline, {1000, 3500, 1, 0, -1, ZORV_TIME_IO}); // cells of 1024 ns
    ASSERT_EQ(timeline.m_cells.size(), 4u);
    EXPECT_EQ((timeline.m_cells[{1, 0}].m_timeNs[ZORV_TIME_IO]), 24u);
    EXPECT_EQ((timeline.m_cells[{1, 1}].m_timeNs[ZORV_TIME_IO]), 1024u);
    EXPECT_EQ((timeline.m_cells[{1, 3}].m_timeNs[ZORV_TIME_IO]), 428u);
    EXPECT_EQ((timeline.m_cells[{1, 0}].m_calls[ZORV_TIME_IO]), 1u);
    EXPECT_EQ((timeline.m_cells[{1, 1}].m_calls[ZORV_TIME_IO]), 0u);
}

TEST(Timeline, CallsAtTheEdgeOfTimeEndToo)
{
    Timeline timeline = MadeTimeline({.m_calls = 0, .m_cells = 100});
    AddTimelineCall(&timeline, {NEVER - 5000, NEVER - 1, 0, 0, -1, ZORV_TIME_IO});
    AddTimelineCall(&timeline, {1, NEVER - 1, 0, 0, -1, ZORV_TIME_IO});
    AddTimelineCall(&timeline, {77, NEVER, 0, 0, -1, ZORV_TIME_IO});
    AddTimelineCall(&timeline, {0, 5, 0, 0, -1, ZORV_TIME_IO});
    EXPECT_EQ(timeline.m_binned, 3u);
    EXPECT_EQ(timeline.m_threads[0].m_untimed, 1u);
    EXPECT_EQ(CellNs(timeline, ZORV_TIME_IO), 4999 + NEVER - 2);
}

TEST(Timeline, SamplesOfOneStretchGoTogether)
{
    Timeline timeline = MadeTimeline({});
    for (uint64_t tick : {10, 11, 12, 20, 21})
    {
        AddTimelineSample(&timeline, 0, tick * 4'000'000, tick == 11 ? 5 : 7);
    }
    const std::vector<TimelineRun>& runs = timeline.m_threads[0].m_runs;
    ASSERT_EQ(runs.size(), 2u);
    EXPECT_EQ(runs[0].m_start, 36'000'000u);
    EXPECT_EQ(runs[0].m_end, 48'000'000u);
    EXPECT_EQ(runs[0].m_samples, 3u);
    EXPECT_EQ(runs[0].m_name, 7u);
    EXPECT_EQ(runs[1].m_samples, 2u);
}

TEST(Timeline, TooManyStretchesAreJoined)
{
    Timeline timeline = MadeTimeline({.m_runs = 8});
    for (uint64_t i = 1; i <= 1000; ++i)
    {
        AddTimelineSample(&timeline, i % 2, i * 100'000'000, 0);
    }
    EXPECT_LE(timeline.m_runs, 8u);
    uint64_t samples = 0;
    for (const TimelineThread& thread : timeline.m_threads)
    {
        for (const TimelineRun& run : thread.m_runs)
        {
            samples += run.m_samples;
        }
    }
    EXPECT_EQ(samples, 1000u);
}

TEST(Timeline, ShrinkingKeepsTheSums)
{
    Timeline timeline = MadeTimeline({});
    for (uint64_t i = 1; i <= 500; ++i)
    {
        AddTimelineCall(&timeline, {i * 5000, i * 5000 + i, 0, 0, -1, ZORV_TIME_SLEEP});
    }
    ASSERT_EQ(timeline.m_binned, 0u);
    Shrink(&timeline, {.m_calls = 100, .m_cells = 10, .m_runs = 10});
    EXPECT_EQ(timeline.m_calls.size(), 100u);
    EXPECT_EQ(timeline.m_binned, 400u);
    EXPECT_EQ(AloneNs(timeline) + CellNs(timeline, ZORV_TIME_SLEEP), 500u * 501 / 2);
}

TEST(ClockShift, TheMarkInAFilesNameTellsItsHost)
{
    const TestFolder folder;
    folder.Write("session.json", R"({"merged": [{"mark": "s0@", "clockShiftNs": 0}, 7,
        {"mark": "s1@", "clockShiftNs": -50}, {"mark": 3, "clockShiftNs": 9}]})");
    const ClockShifts shifts = ReadClockShifts(folder.m_path);
    EXPECT_EQ(ShiftOf(shifts, "/x/trace_s1@host_12.umt"), -50);
    EXPECT_EQ(ShiftOf(shifts, "/x/trace_s0@host_12.umt"), 0);
    EXPECT_EQ(ShiftOf(shifts, "/x/trace_host_s1@.umt"), 0);
    EXPECT_TRUE(ReadClockShifts(folder.m_path + "/none").empty());
}

TEST(ClockShift, OnlyTimesAreMoved)
{
    EXPECT_EQ(Shifted(100, -50), 50u);
    EXPECT_EQ(Shifted(100, 50), 150u);
    EXPECT_EQ(Shifted(0, 50), 0u);
    EXPECT_EQ(Shifted(NEVER, 50), NEVER);
    EXPECT_EQ(Shifted(20, -50), 1u);
    EXPECT_EQ(Shifted(NEVER - 5, 50), NEVER - 1);
}

} // namespace
