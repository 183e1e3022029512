// Reports on sessions whose answers are known because every record was made by hand.
#include "Report/Report.h"
#include "FileBytes.h"
#include "Session/Failure.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace qelix;
using Json = nlohmann::json;

namespace
{

// Sub-types of pthread records.
constexpr uint16_t MUTEX = 1;
constexpr uint16_t CONDITION = 3;
constexpr uint16_t JOIN = 13;

struct ReportTest : testing::Test
{
    TestFolder m_folder;

    void Trace(const FileBytes& file, const std::string& name = "trace_host_42.umt")
    {
        m_folder.Write("trace/" + name, file);
    }

    Json Report() const
    {
        return Json::parse(ReportJson(ReadSessionFacts(m_folder.m_path)));
    }

    std::string Text() const
    {
        return FullReportText(ReadSessionFacts(m_folder.m_path));
    }
};

Json ThreadOf(const Json& report, int tid)
{
    for (const Json& process : report["processes"])
    {
        for (const Json& thread : process["threads"])
        {
            if (thread["tid"] == tid)
            {
                return thread;
            }
        }
    }
    return nullptr;
}

} // namespace

TEST_F(ReportTest, WaitsOfAThreadByKindOfCall)
{
    FileBytes file;
    file.StreamHeader(42, 3).Proc("main", 1, 0, 42).Proc("worker", 2, 0xF0);
    for (uint64_t i = 1; i <= 100; ++i)
    {
        file.Pthread(MUTEX, 1000, 1000 + i * 1'000'000);
    }
    file.Pthread(CONDITION, 5000, 5700, 0x2000);
    Trace(file);
    const Json report = Report();
    ASSERT_EQ(report["processes"].size(), 1u);
    const Json& process = report["processes"][0];
    EXPECT_EQ(process["pid"], 42);
    EXPECT_EQ(process["name"], "main");
    EXPECT_EQ(process["mpiRankId"], 3);
    EXPECT_EQ(process["damage"], nullptr);
    const Json worker = ThreadOf(report, 43);
    EXPECT_EQ(worker["name"], "worker");
    ASSERT_EQ(worker["calls"].size(), 2u);
    const Json& mutex = worker["calls"][0];
    EXPECT_EQ(mutex["kind"], "mutex");
    EXPECT_EQ(mutex["calls"], 100);
    EXPECT_EQ(mutex["totalNs"], 5'050'000'000);
    EXPECT_EQ(mutex["longestNs"], 100'000'000);
    EXPECT_NEAR(mutex["p50Ns"].get<double>(), 50e6, 0.5e6);
    EXPECT_NEAR(mutex["p99Ns"].get<double>(), 99e6, 1e6);
    EXPECT_EQ(worker["calls"][1]["kind"], "condition");
    EXPECT_EQ(worker["calls"][1]["p50Ns"], 700);
    EXPECT_EQ(worker["totalNs"], 5'050'000'700);
    EXPECT_EQ(ThreadOf(report, 42)["calls"].size(), 0u);
}

TEST_F(ReportTest, TheTenLocksWaitedOnLongest)
{
    FileBytes file;
    file.StreamHeader();
    for (uint64_t lock = 1; lock <= 12; ++lock)
    {
        file.Pthread(MUTEX, 100, 100 + lock * 10, 0x1000 * lock, 43);
        file.Pthread(MUTEX, 100, 100 + lock * 20, 0x1000 * lock, 44);
    }
    file.Pthread(CONDITION, 100, 1100, 0x1000, 43);
    file.Pthread(JOIN, 100, 9100, 0x1000, 43); // waits for a thread, not for a lock
    Trace(file);
    const Json locks = Report()["locks"];
    ASSERT_EQ(locks.size(), 10u);
    EXPECT_EQ(locks[0]["kind"], "condition");
    EXPECT_EQ(locks[0]["address"], 0x1000);
    EXPECT_EQ(locks[0]["totalNs"], 1000);
    EXPECT_EQ(locks[0]["threads"], Json({43}));
    EXPECT_EQ(locks[1]["kind"], "mutex");
    EXPECT_EQ(locks[1]["address"], 0xC000);
    EXPECT_EQ(locks[1]["pid"], 42);
    EXPECT_EQ(locks[1]["calls"], 2);
    EXPECT_EQ(locks[1]["totalNs"], 360);
    EXPECT_EQ(locks[1]["longestNs"], 240);
    EXPECT_EQ(locks[1]["threads"], Json({43, 44}));
    EXPECT_EQ(locks[9]["address"], 0x4000);
}

TEST_F(ReportTest, LocksOfTwoProcessesAtOneAddressAreTwoLocks)
{
    Trace(FileBytes().StreamHeader(42).Pthread(MUTEX, 1, 11, 0x1000), "trace_host_42.umt");
    Trace(FileBytes().StreamHeader(50).Pthread(MUTEX, 1, 21, 0x1000), "trace_host_50.umt");
    const Json report = Report();
    ASSERT_EQ(report["locks"].size(), 2u);
    EXPECT_EQ(report["locks"][0]["pid"], 50);
    EXPECT_EQ(report["locks"][1]["pid"], 42);
    EXPECT_EQ(report["processes"][0]["pid"], 50) << "the process that waited longest comes first";
}

TEST_F(ReportTest, CallsThatNeverReturned)
{
    FileBytes file;
    file.StreamHeader().Proc("stuck", 5, 0xF0).Pthread(MUTEX, 2000, NEVER, 0xBAD);
    file.Pthread(MUTEX, 1000, 1500, 0xBAD).Syscall(2, 1000, NEVER).ThreadEnd(9000, 0, 42);
    Trace(file);
    const Json report = Report();
    const Json& calls = report["neverReturned"];
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0]["kind"], "wait");
    EXPECT_EQ(calls[0]["atLeastNs"], 8000);
    EXPECT_EQ(calls[1]["kind"], "mutex");
    EXPECT_EQ(calls[1]["pid"], 42);
    EXPECT_EQ(calls[1]["tid"], 43);
    EXPECT_EQ(calls[1]["address"], 0xBAD);
    EXPECT_EQ(calls[1]["startTime"], 2000);
    EXPECT_EQ(calls[1]["atLeastNs"], 7000);
    const Json mutex = ThreadOf(report, 43)["calls"][0];
    EXPECT_EQ(mutex["calls"], 2);
    EXPECT_EQ(mutex["neverReturned"], 1);
    EXPECT_EQ(mutex["totalNs"], 500);
    EXPECT_EQ(report["locks"][0]["stuckNs"], 7000);
    EXPECT_NE(Text().find("calls that never returned"), std::string::npos);
}

TEST_F(ReportTest, ACallThatTheClockMissedCountsWithoutADuration)
{
    Trace(
        FileBytes().StreamHeader().Pthread(MUTEX, 0, 5000).Pthread(MUTEX, 5000, 0).Pthread(MUTEX, 5000, 5100));
    const Json mutex = ThreadOf(Report(), 43)["calls"][0];
    EXPECT_EQ(mutex["calls"], 3);
    EXPECT_EQ(mutex["untimed"], 2);
    EXPECT_EQ(mutex["totalNs"], 100);
}

TEST_F(ReportTest, TheLastNameOfAThreadWinsWhereverItStands)
{
    Trace(FileBytes().StreamHeader().Proc("second", 20, 0xF0).Proc("first", 10, 0xF0).Pthread(MUTEX, 1, 2));
    EXPECT_EQ(ThreadOf(Report(), 43)["name"], "second");
}

TEST_F(ReportTest, ANameGivenByAnotherThreadIsFoundByTheHandle)
{
    FileBytes file;
    file.StreamHeader().Proc("given", 30, 0xF0, -1).Proc("own", 10, 0xF0, 43);
    file.Proc("next", 40, 0xF0, 44).Proc("later", 50, 0xF0, -1).Proc("nobody", 50, 0xE0, -1);
    Trace(file);
    const Json report = Report();
    EXPECT_EQ(ThreadOf(report, 43)["name"], "given") << "the thread that had the handle then";
    EXPECT_EQ(ThreadOf(report, 44)["name"], "later") << "the thread that had the handle afterwards";
    EXPECT_EQ(report["processes"][0]["threads"].size(), 2u);
}

TEST_F(ReportTest, TheSameFactsAsText)
{
    m_folder.Write("agent.conf", std::string("QELIX_TRACE_PTHREAD=1:2500:0\n"));
    Trace(FileBytes()
              .StreamHeader()
              .Proc("main", 1, 0, 42)
              .Proc("idle", 1, 0xE0, 44)
              .Proc("work\x1b", 2, 0xF0)
              .Pthread(MUTEX, 1000, 1'251'000, 0xABC0));
    const std::string text = Text();
    EXPECT_NE(text.find("1 process, 3 threads, 1 call recorded"), std::string::npos) << text;
    EXPECT_NE(text.find("calls not recorded: pthread below 2.50 µs\n"), std::string::npos) << text;
    EXPECT_NE(text.find("not traced: sleep, wait, lock, io-sync, io, syscall\n"), std::string::npos) << text;
    EXPECT_NE(text.find("process 42 main"), std::string::npos) << text;
    EXPECT_NE(text.find("work\\x1b"), std::string::npos) << text;
    EXPECT_NE(text.find("1.25 ms"), std::string::npos) << text;
    EXPECT_NE(text.find("2 threads without a recorded call"), std::string::npos) << text;
    EXPECT_NE(text.find("0xabc0"), std::string::npos) << text;
    EXPECT_EQ(text.find("never returned"), std::string::npos) << text;
}

TEST_F(ReportTest, ADamagedFileIsReportedWithWhatPrecedesTheDamage)
{
    FileBytes file;
    file.StreamHeader().Pthread(MUTEX, 1000, 1500).U16(1).U16(64);
    Trace(file);
    const SessionFacts facts = ReadSessionFacts(m_folder.m_path);
    EXPECT_TRUE(IsDamaged(facts));
    const Json report = Json::parse(ReportJson(facts));
    EXPECT_EQ(report["processes"][0]["damage"]["offset"], 24 + 64);
    EXPECT_EQ(ThreadOf(report, 43)["totalNs"], 500);
    EXPECT_NE(FullReportText(facts).find("trace_host_42.umt: byte offset 88"), std::string::npos);
}

TEST_F(ReportTest, NamesThatAreNoUtf8AreStillJson)
{
    Trace(FileBytes().StreamHeader().Proc("\xff\xfe", 1, 0xF0));
    EXPECT_EQ(ThreadOf(Report(), 43)["name"], "\xef\xbf\xbd\xef\xbf\xbd");
}

TEST_F(ReportTest, LostRecordsAndErrorsOfTheAgentAreTold)
{
    Trace(FileBytes().StreamHeader());
    m_folder.Write(".log/ZorvUmtAgent_host_main_42.txt",
                   std::string("ERROR : ZorvUmaEnqueue : 12 : Failed to enqueue the buffer.\n"
                               "INFO : 42 : 43: Timer overrun count (5).\n"
                               "INFO : 42 : 42: Lost sample records count = 4\n"
                               "INFO : 42 : 42: Lost trace records count = 17\n"));
    m_folder.Write(".log/ZorvUmtAgent_host_main_43.txt",
                   std::string("INFO : 43 : 43: Lost trace records count = 3\n"));
    m_folder.Write(".error/ZorvUmtError_host_main_42.err", std::string("2"));
    m_folder.Write(".error/ZorvUmtError_host_main_43.err", std::string());
    const Json agent = Report()["agent"];
    EXPECT_EQ(agent["lostTraceRecords"], 20);
    EXPECT_EQ(agent["lostSampleRecords"], 4);
    EXPECT_EQ(agent["timerOverruns"], 5);
    EXPECT_EQ(agent["logErrorLines"], 1);
    ASSERT_EQ(agent["errors"].size(), 1u);
    EXPECT_EQ(agent["errors"][0]["pid"], 42);
    EXPECT_EQ(agent["errors"][0]["code"], "2");
    const std::string text = Text();
    EXPECT_NE(text.find("lost: 20 records"), std::string::npos) << text;
    EXPECT_NE(text.find("lost: 4 samples"), std::string::npos) << text;
    EXPECT_NE(text.find("fired 5 times more"), std::string::npos) << text;
    EXPECT_NE(text.find("Failed to enqueue the buffer."), std::string::npos) << text;
    EXPECT_NE(text.find("ulimit -n"), std::string::npos) << text;
}

TEST_F(ReportTest, ASessionWithoutATraceSaysWhy)
{
    m_folder.Write("trace/readme", std::string("no trace"));
    EXPECT_NE(Text().find("none that the program started loaded the agent"), std::string::npos);
    Trace(FileBytes());
    EXPECT_NE(Text().find("empty: "), std::string::npos);
}

TEST_F(ReportTest, WhatIsNoSessionIsRefused)
{
    EXPECT_THROW(ReadSessionFacts(m_folder.m_path), Failure);
    EXPECT_THROW(ReadSessionFacts(m_folder.m_path + "/missing"), Failure);
}
