// Where time went, who waits for whom, and the filters, on sessions made by hand.
#include "Report/Views.h"
#include "FileBytes.h"
#include "Report/Report.h"
#include "Report/ThreadTimes.h"
#include "Session/Failure.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace qelix;
using Json = nlohmann::json;

namespace
{

constexpr uint16_t MUTEX = 1;
constexpr uint16_t CONDITION = 3;
constexpr uint16_t JOIN = 13;
constexpr uint16_t SLEEP = 1;
constexpr uint16_t IO = 5;

struct ViewsTest : testing::Test
{
    TestFolder m_folder;

    SessionFacts Read(const FileBytes& file, const SessionView& view = {})
    {
        m_folder.Write("trace/trace_host_42.umt", file);
        return ReadSessionFacts(m_folder.m_path, {}, view);
    }
};

Json RowsOf(const Table& table)
{
    return Json::parse(TableJson(table))["rows"];
}

} // namespace

TEST_F(ViewsTest, AThreadsTimeIsSharedOutByKind)
{
    FileBytes file;
    file.StreamHeader().Proc("main", 1000, 0, 42).Proc("worker", 1000, 0xF0);
    file.Pthread(MUTEX, 2000, 3000).Pthread(CONDITION, 3000, 5000).Pthread(JOIN, 5000, 5500);
    file.Syscall(SLEEP, 6000, 9000).Syscall(IO, 9000, 9500).ThreadEnd(11000, 0xF0).ThreadEnd(21000, 0, 42);
    const std::vector<ThreadTimes> times = TimesOfThreads(Read(file));
    ASSERT_EQ(times.size(), 2u);
    EXPECT_EQ(times[0].m_name, "main") << "the longest wall time first";
    EXPECT_EQ(times[0].m_wallNs, 20000u);
    EXPECT_EQ(times[1].m_wallNs, 10000u);
    EXPECT_EQ(times[1].m_timeNs, (KindTimes{0, 1000, 2000, 500, 3000, 500, 3000}));
    EXPECT_EQ(times[1].m_calls, 5u);
}

TEST_F(ViewsTest, AThreadThatDidNotSayItEndedLastsAsLongAsItsProcess)
{
    FileBytes file;
    file.StreamHeader().Proc("worker", 1000, 0xF0).Pthread(MUTEX, 2000, NEVER).ThreadEnd(11000, 0, 42);
    const std::vector<ThreadTimes> times = TimesOfThreads(Read(file));
    ASSERT_EQ(times.size(), 2u);
    EXPECT_EQ(times[0].m_name, "worker");
    EXPECT_EQ(times[0].m_wallNs, 10000u);
    EXPECT_EQ(times[0].m_timeNs[ZORV_TIME_LOCK], 9000u) << "it was stuck in there";
}

TEST_F(ViewsTest, ThreadsWhoseNamesDifferInANumberGoTogether)
{
    FileBytes file;
    file.StreamHeader().Proc("main", 1000, 0, 42).ThreadEnd(2000, 0, 42);
    for (int i = 1; i <= 3; ++i)
    {
        file.Proc("worker-" + std::to_string(i), 1000, 0xF0, 42 + i).ThreadEnd(1000 + i * 1000, 0xF0, 42 + i);
    }
    const SessionFacts session = Read(file);
    const std::vector<ThreadTimes> groups = GroupedByName(TimesOfThreads(session));
    ASSERT_EQ(groups.size(), 2u);
    EXPECT_EQ(groups[0].m_name, "worker-*");
    EXPECT_EQ(groups[0].m_threads, 3u);
    EXPECT_EQ(groups[0].m_wallNs, 6000u);
    EXPECT_EQ(groups[1].m_name, "main");
    EXPECT_NE(ReportText(session).find("  worker-* × 3 "), std::string::npos);
}

TEST_F(ViewsTest, ALockKnowsWhoUsedItFirstAndWhoTookItLast)
{
    FileBytes file;
    file.StreamHeader().Pthread(MUTEX, 5000, 6000, 0x1000, 44).Pthread(MUTEX, 1000, 2000, 0x1000, 43);
    file.Pthread(MUTEX, 7000, 9000, 0x1000, 45).Pthread(MUTEX, 100, 200, 0x2000, 45);
    const SessionFacts session = Read(file);
    ASSERT_EQ(session.m_locks.size(), 2u);
    const LockFacts& lock = session.m_locks[0];
    EXPECT_EQ(lock.m_firstTid, 43);
    EXPECT_EQ(lock.m_lastAcquirers[0].m_tid, 45);
    EXPECT_EQ(lock.m_lastAcquirers[1].m_tid, 44);
    EXPECT_EQ(lock.m_lastAcquirers[2].m_tid, 43);
    EXPECT_DOUBLE_EQ(MeanWaiters(lock), 4000.0 / 8000.0);
    EXPECT_EQ(lock.m_name, "heap#2") << "the other one was used before it";
    EXPECT_EQ(session.m_locks[1].m_name, "heap#1");
}

TEST_F(ViewsTest, OneLockByNamePatternAndAddress)
{
    FileBytes file;
    file.StreamHeader().Pthread(MUTEX, 100, 300, 0x1000, 43).Pthread(MUTEX, 100, 200, 0x1000, 44);
    const SessionFacts session = Read(file);
    for (const char* pName : {"heap#1", "heap*", "0x1000"})
    {
        const Json rows = RowsOf(LockView(session, pName));
        ASSERT_EQ(rows.size(), 2u);
        EXPECT_EQ(rows[0]["totalNs"], 200);
        EXPECT_EQ(rows[1]["thread"], "- (44)");
    }
    EXPECT_THROW(LockView(session, "g_other"), Failure);
}

TEST_F(ViewsTest, WhoWaitsForEachOtherIsACircleAndWhoWaitsForThemIsNot)
{
    FileBytes file;
    file.StreamHeader().Pthread(MUTEX, 100, 200, 0xA000, 43).Pthread(MUTEX, 100, 200, 0xB000, 44);
    file.Pthread(MUTEX, 300, NEVER, 0xB000, 43).Pthread(MUTEX, 300, NEVER, 0xA000, 44);
    file.Pthread(MUTEX, 400, NEVER, 0xA000, 45).Syscall(2, 400, NEVER, 0, 46).ThreadEnd(900, 0, 42);
    const Table table = BlockedView(Read(file));
    EXPECT_EQ(table.m_rows.size(), 4u);
    std::vector<std::string> cycles;
    for (const std::string& note : table.m_notes)
    {
        if (note.starts_with("wait cycle: "))
        {
            cycles.push_back(note);
        }
    }
    ASSERT_EQ(cycles.size(), 1u);
    EXPECT_EQ(cycles[0],
              "wait cycle: - (43) waits for heap#2, whose last seen acquirer is - (44), who waits for "
              "heap#1, whose last seen acquirer is - (43)");
}

TEST_F(ViewsTest, AThreadThatWaitsForItselfIsACircle)
{
    FileBytes file;
    file.StreamHeader().Pthread(MUTEX, 100, 200, 0xA000, 43).Pthread(MUTEX, 300, NEVER, 0xA000, 43);
    const Table table = BlockedView(Read(file));
    EXPECT_EQ(table.m_notes[0], "wait cycle: - (43) waits for heap#1, whose last seen acquirer is - (43)");
}

TEST_F(ViewsTest, CallsAreCutAtTheEdgesOfTheTimeAskedFor)
{
    FileBytes file;
    file.StreamHeader().Proc("main", 1000, 0, 42).Pthread(MUTEX, 2000, 6000).Pthread(MUTEX, 7000, 8000);
    file.ThreadEnd(11000, 0, 42);
    SessionView view;
    view.m_filter.m_from = 3000; // since the first record: 4000
    view.m_filter.m_to = 6500;
    const SessionFacts session = Read(file, view);
    ASSERT_EQ(session.m_locks.size(), 1u);
    EXPECT_EQ(session.m_locks[0].m_calls.m_calls, 2u);
    EXPECT_EQ(session.m_locks[0].m_calls.m_totalNs, 2000u + 500u);
    EXPECT_EQ(LengthOf(session.m_span), 3500u);
}

TEST_F(ViewsTest, ClassesAndThreadsAreChosen)
{
    FileBytes file;
    file.StreamHeader().Proc("main", 1000, 0, 42).Proc("work", 1000, 0xF0).Pthread(MUTEX, 2000, 6000);
    file.Syscall(IO, 2000, 6000, 0, 42).Syscall(SLEEP, 2000, 3000);
    SessionView view;
    view.m_filter.m_threads = {"w?rk"};
    EXPECT_EQ(RowsOf(CallsView(Read(file, view), {})).size(), 2u);
    view.m_filter.m_classes = {ZORV_CLASS_SLEEP};
    const Json rows = RowsOf(CallsView(Read(file, view), {}));
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0]["thread"], "work (43)");
    EXPECT_EQ(rows[0]["class"], "sleep");
    view.m_filter.m_processes = {"work"}; // a process goes by its main thread
    EXPECT_TRUE(Read(file, view).m_processes.empty());
}

TEST_F(ViewsTest, CsvQuotesWhatNeedsIt)
{
    FileBytes file;
    file.StreamHeader().Proc("a,\"b\"", 1000, 0, 42).ThreadEnd(2000, 0, 42);
    EXPECT_NE(TableCsv(ThreadsView(Read(file))).find("\"a,\"\"b\"\"\",42,"), std::string::npos);
}

TEST_F(ViewsTest, OfVeryManyLocksThoseWaitedForLeastAreDropped)
{
    FileBytes file;
    file.StreamHeader();
    for (uint64_t lock = 1; lock <= 70000; ++lock)
    {
        file.Pthread(MUTEX, 1000, 1000 + lock, lock * 64);
    }
    const SessionFacts session = Read(file);
    EXPECT_EQ(session.m_locks[0].m_calls.m_totalNs, 70000u);
    EXPECT_LE(session.m_lockCount, 65536u);
    EXPECT_EQ(session.m_lockCount + session.m_foldedLocks, 70000u);
    EXPECT_NE(ReportText(session).find("that were waited for least were not told apart"), std::string::npos);
}

TEST_F(ViewsTest, AProcessThatSaidNoEndMayMissItsLastRecords)
{
    FileBytes file;
    file.StreamHeader().Proc("main", 1000, 0, 42).Pthread(MUTEX, 2000, 3000).ThreadEnd(2500, 0xF0, 44);
    EXPECT_NE(ReportText(Read(file)).find("killed: 1 process said no end"), std::string::npos);
    file.ThreadEnd(4000, 0, 42);
    EXPECT_EQ(ReportText(Read(file)).find("killed: "), std::string::npos);
    SessionView view;
    view.m_filter.m_threads = {"44"};
    EXPECT_EQ(ReportText(ReadSessionFacts(m_folder.m_path, {}, view)).find("killed: "), std::string::npos)
        << "the end need not be that of a thread that was asked for";
    view.m_filter = {};
    view.m_filter.m_to = 1000;
    EXPECT_EQ(ReportText(ReadSessionFacts(m_folder.m_path, {}, view)).find("killed: "), std::string::npos);
}
