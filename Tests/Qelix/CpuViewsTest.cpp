// The views of CPU time, of samples whose stacks are known because every record was made by hand.
#include "Report/CpuViews.h"
#include "FileBytes.h"
#include "Report/CpuFacts.h"
#include "Report/Report.h"
#include "Session/Failure.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace qelix;
using Json = nlohmann::json;

namespace
{

// Without a file behind it a module's functions are its offsets: "m+0x10".
constexpr uint64_t MODULE = 0x10000;
constexpr uint64_t TICK = 4'000'000;

void AddSample(FileBytes* pFile, const std::vector<uint64_t>& offsets, int32_t tid = 43, uint64_t time = 100)
{
    pFile->SampleRecordHeader(3, static_cast<uint16_t>(40 + 8 * offsets.size()), 1, time, tid);
    pFile->U64(0).U32(0).U32(static_cast<uint32_t>(offsets.size()));
    for (const uint64_t offset : offsets)
    {
        pFile->U64(MODULE + offset);
    }
}

struct CpuViewsTest : testing::Test
{
    TestFolder m_folder;
    std::map<int, FileBytes> m_files; // by process

    void SetUp() override
    {
        m_folder.Write("trace/readme", std::string("no trace"));
        m_folder.Write("session.json", std::string("{\"version\": 1, \"tickNs\": 4000000}"));
        m_folder.Write("agent.conf", std::string("QELIX_TIMER_INTERVAL=4000000\n"));
        for (const int pid : {42, 52})
        {
            m_files[pid].StreamHeader(pid);
            m_folder.Write("metadata/metadata_host_" + std::to_string(pid) + ".meta",
                           FileBytes()
                               .MetadataHeader(static_cast<uint32_t>(pid))
                               .Mmap(MODULE, MODULE + 0x1000, "/nonexistent/m"));
        }
    }

    SessionFacts Read(const SampleView& view)
    {
        for (const auto& [pid, file] : m_files)
        {
            m_folder.Write("sample/profile_host_" + std::to_string(pid) + ".ums", file);
        }
        return ReadSessionFacts(m_folder.m_path, view);
    }

    static Json Rows(const Table& table)
    {
        return Json::parse(TableJson(table))["rows"];
    }
};

} // namespace

TEST_F(CpuViewsTest, FunctionsHaveTheirTimeAndShare)
{
    for (int i = 0; i < 3; ++i)
    {
        AddSample(&m_files[42], {0x10, 0x31});
    }
    AddSample(&m_files[42], {0x20, 0x31});
    const Json rows = Rows(FunctionsView(Read({})));
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0]["function"], "m+0x10");
    EXPECT_EQ(rows[0]["selfShare"], 0.75);
    EXPECT_EQ(rows[0]["selfNs"], 3 * TICK);
    EXPECT_EQ(rows[2]["function"], "m+0x30");
    EXPECT_EQ(rows[2]["totalShare"], 1.0);
    EXPECT_EQ(rows[2]["totalNs"], 4 * TICK);
    EXPECT_EQ(rows[2]["selfNs"], 0);
}

TEST_F(CpuViewsTest, ASampleWeighsWhatItsProcessMissed)
{
    // One process has one sample of two expiries, of which one was missed; so has the other, whose second was
    // lost.
    AddSample(&m_files[42], {0x10});
    AddSample(&m_files[52], {0x20});
    m_folder.Write(".log/log_host_42.txt", std::string("INFO : 42 : 43: Timer overrun count (2).\n"));
    m_folder.Write(".log/log_host_52.txt", std::string("INFO : 52 : 53: Lost sample records count = 1.\n"));
    const Json rows = Rows(FunctionsView(Read({})));
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0]["function"], "m+0x10");
    EXPECT_EQ(rows[0]["selfNs"], 3 * TICK);
    EXPECT_EQ(rows[0]["selfShare"], 0.6);
    EXPECT_EQ(rows[1]["selfNs"], 2 * TICK);
}

TEST_F(CpuViewsTest, ProcessesOfOneIdOnTwoHostsMissTheirOwnSamples)
{
    FileBytes file;
    AddSample(&file.StreamHeader(42), {0x10});
    for (const std::string host : {"s0@host", "s1@host"})
    {
        m_folder.Write("sample/profile_" + host + "_42.ums", file);
    }
    m_folder.Write(".log/log_s1@host_42.txt", std::string("INFO : 42 : 43: Timer overrun count (3).\n"));
    std::map<double, int> times;
    const SessionFacts session = Read({});
    for (const ProcessFacts& process : session.m_processes)
    {
        times[NsPerSample(session, process)] += process.m_samples.m_samples != 0 ? 1 : 0;
    }
    EXPECT_EQ(times[TICK], 1);
    EXPECT_EQ(times[4 * TICK], 1);
}

TEST_F(CpuViewsTest, EveryReportWeighsSamplesAlike)
{
    // Of two samples the one of the process that missed three others stands for four fifths of the time.
    AddSample(&m_files[42], {0x10});
    AddSample(&m_files[52], {0x20});
    m_folder.Write(".log/log_host_42.txt", std::string("INFO : 42 : 43: Timer overrun count (3).\n"));
    const SessionFacts session = Read({});
    const std::string full = FullReportText(session);
    for (const char* pLine :
         {"    80.0 %   80.0 %   16.0 ms  m+0x10  (m)", "    20.0 %   20.0 %   4.00 ms  m+0x20",
          "   100.0 %   20.0 ms  /nonexistent/m", "80.0 % of the CPU time: thread - (43)"})
    {
        EXPECT_NE(full.find(pLine), std::string::npos) << pLine << "\n" << full;
    }
    const std::string screen = ReportText(session);
    EXPECT_NE(screen.find("  16.0 ms   80.0   80.0  m+0x10"), std::string::npos) << screen;
    const Json cpu = Json::parse(ReportJson(session))["cpu"];
    EXPECT_EQ(cpu["sampledNs"], 5 * TICK);
    EXPECT_EQ(cpu["functions"][0]["selfNs"], 4 * TICK);
    EXPECT_EQ(cpu["modules"][0]["selfNs"], 5 * TICK);
    EXPECT_EQ(cpu["threads"][1]["functions"][0]["totalNs"], TICK);
}

TEST_F(CpuViewsTest, TheTreeLeadsFromTheOutermostFunctionInwards)
{
    AddSample(&m_files[42], {0x10, 0x31});
    AddSample(&m_files[42], {0x10, 0x31}, 44);
    AddSample(&m_files[42], {0x20, 0x31});
    AddSample(&m_files[42], {0x30});
    const SessionFacts session = Read({.m_withStacks = true});
    const Json rows = Rows(CallTreeView(session, 0, false));
    ASSERT_EQ(rows.size(), 3u) << rows;
    EXPECT_EQ(rows[0]["function"], "m+0x30");
    EXPECT_EQ(rows[0]["depth"], 1);
    EXPECT_EQ(rows[0]["totalShare"], 1.0);
    EXPECT_EQ(rows[0]["selfShare"], 0.25);
    EXPECT_EQ(rows[1]["function"], "m+0x10") << "of both threads, and most time first";
    EXPECT_EQ(rows[1]["totalShare"], 0.5);
    EXPECT_EQ(rows[2]["function"], "m+0x20");
    EXPECT_EQ(rows[2]["depth"], 2);
    const Json shown = Rows(CallTreeView(session, 0.3, true));
    ASSERT_EQ(shown.size(), 2u) << "what has less is left out";
    EXPECT_EQ(shown[1]["function"], "  m+0x10");
}

TEST_F(CpuViewsTest, LinesAreCountedOnlyWhereTheyAreAskedFor)
{
    AddSample(&m_files[42], {0x10, 0x31});
    EXPECT_TRUE(Rows(LinesView(Read({}))).empty());
    const Json rows = Rows(LinesView(Read({.m_withLines = true})));
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0]["function"], "m+0x10");
    EXPECT_EQ(rows[0]["selfShare"], 1.0);
    EXPECT_EQ(rows[0]["line"], nullptr) << "there is no file to tell it";
}

TEST_F(CpuViewsTest, ForAScreenSourcesLoseTheirFolders)
{
    Table table;
    table.m_columns = {{"selfNs", "self", ZORV_CELL_TIME},
                       {"totalNs", "total", ZORV_CELL_TIME},
                       {"source", "source", ZORV_CELL_TEXT}};
    AddRow(&table, uint64_t{1}, uint64_t{2}, TextCell("/src/app/a.c:12"));
    AddRow(&table, uint64_t{3}, uint64_t{4}, TextCell(""));
    EXPECT_EQ(Rows(BriefTable(table)),
              Json::parse(R"([{"selfNs": 1, "source": "a.c:12"}, {"selfNs": 3, "source": null}])"));
}

TEST_F(CpuViewsTest, AddressesOfAMissingFileAreCountedAndExplained)
{
    AddSample(&m_files[42], {0x10, 0x31});
    const Json rows = Rows(SymbolsView(Read({})));
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0]["module"], "/nonexistent/m");
    EXPECT_EQ(rows[0]["named"], 0);
    EXPECT_GE(rows[0]["addresses"], 2);
    EXPECT_NE(rows[0]["remarks"].get<std::string>().find("gone"), std::string::npos);
}

TEST_F(CpuViewsTest, StacksThatComeAgainCountLikeThoseThatDoNot)
{
    // More different stacks than are held back at once, each twice.
    for (int round = 0; round < 2; ++round)
    {
        for (uint64_t i = 0; i < 60000; ++i)
        {
            AddSample(&m_files[42], {0x10, 0x100 + i % 256, 0x200 + i / 256});
        }
    }
    const SessionFacts session = Read({});
    EXPECT_EQ(SampleCount(session), 120000u);
    const Json rows = Rows(FunctionsView(session));
    EXPECT_EQ(rows[0]["function"], "m+0x10");
    EXPECT_EQ(rows[0]["samples"], 120000);
}
