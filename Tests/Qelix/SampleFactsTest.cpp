// What is made of samples whose stacks are known because every record was made by hand.
#include "FileBytes.h"
#include "Report/CpuFacts.h"
#include "Report/Report.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace qelix;
using Json = nlohmann::json;

namespace
{

// Without a file behind it a module's functions are its offsets: "m+0x10".
constexpr uint64_t MODULE = 0x10000;

FileBytes& AddSample(FileBytes* pFile, const std::vector<uint64_t>& offsets, int32_t tid = 43,
                     uint64_t time = 100)
{
    pFile->SampleRecordHeader(3, static_cast<uint16_t>(40 + 8 * offsets.size()), 1, time, tid);
    pFile->U64(0).U32(0).U32(static_cast<uint32_t>(offsets.size()));
    for (const uint64_t offset : offsets)
    {
        pFile->U64(MODULE + offset);
    }
    return *pFile;
}

FileBytes& AddName(FileBytes* pFile, const std::string& name, int32_t tid)
{
    return pFile->SampleRecordHeader(1, 72, 1, 5, tid).U64(0xF0).U32(0).Text(name, 32).U32(0);
}

struct SampleFactsTest : testing::Test
{
    TestFolder m_folder;
    FileBytes m_file;

    void SetUp() override
    {
        m_file.StreamHeader();
        m_folder.Write("trace/readme", std::string("no trace"));
        m_folder.Write("agent.conf", std::string("QELIX_TIMER_INTERVAL=1000000\nQELIX_CALLSTACK_DEPTH=2\n"));
        m_folder.Write("session.json", std::string("{\"version\": 1, \"tickNs\": 4000000}"));
        m_folder.Write("metadata/metadata_host_42.meta",
                       FileBytes().MetadataHeader().Mmap(MODULE, MODULE + 0x1000, "/nonexistent/m"));
    }

    Json Cpu()
    {
        m_folder.Write("sample/profile_host_42.ums", m_file);
        return Json::parse(ReportJson(ReadSessionFacts(m_folder.m_path)))["cpu"];
    }
};

Json FunctionNamed(const Json& functions, const std::string& name)
{
    for (const Json& function : functions)
    {
        if (function["name"] == name)
        {
            return function;
        }
    }
    return nullptr;
}

} // namespace

TEST_F(SampleFactsTest, SelfIsTheInterruptedFunctionAndTotalEveryoneOnTheStackOnce)
{
    // Innermost first; outer frames are return addresses, one behind the call.
    AddSample(&m_file, {0x10, 0x21, 0x31});
    AddSample(&m_file, {0x10, 0x21, 0x21, 0x31}); // a recursion
    AddSample(&m_file, {0x20, 0x31});
    const Json cpu = Cpu();
    EXPECT_EQ(cpu["samples"], 3);
    EXPECT_EQ(FunctionNamed(cpu["functions"], "m+0x10"),
              Json::parse(R"({"name": "m+0x10", "module": "/nonexistent/m", "self": 2, "total": 2,
                              "selfNs": 8000000, "totalNs": 8000000})"));
    EXPECT_EQ(FunctionNamed(cpu["functions"], "m+0x20")["self"], 1);
    EXPECT_EQ(FunctionNamed(cpu["functions"], "m+0x20")["total"], 3);
    EXPECT_EQ(FunctionNamed(cpu["functions"], "m+0x30")["self"], 0);
    EXPECT_EQ(FunctionNamed(cpu["functions"], "m+0x30")["total"], 3);
    EXPECT_EQ(cpu["functions"][0]["name"], "m+0x10") << "most samples of its own first";
    EXPECT_EQ(cpu["modules"], Json::parse(R"([{"path": "/nonexistent/m", "self": 3, "selfNs": 12000000}])"));
}

TEST_F(SampleFactsTest, ASampleStandsForTheTickWhereTheIntervalIsShorter)
{
    AddSample(&m_file, {0x10});
    EXPECT_EQ(Cpu()["periodNs"], 4'000'000);
    m_folder.Write("agent.conf", std::string("QELIX_TIMER_INTERVAL=10000000\n"));
    EXPECT_EQ(Cpu()["periodNs"], 10'000'000);
}

TEST_F(SampleFactsTest, ByThreadAndProcess)
{
    AddName(&m_file, "busy", 43);
    AddName(&m_file, "idle", 44);
    AddName(&m_file, "some", 45);
    AddSample(&m_file, {0x10}, 43);
    AddSample(&m_file, {0x10}, 43);
    AddSample(&m_file, {0x20}, 45);
    const Json cpu = Cpu();
    ASSERT_EQ(cpu["threads"].size(), 2u) << "a thread without a sample has nothing to say";
    EXPECT_EQ(cpu["threads"][0]["name"], "busy");
    EXPECT_EQ(cpu["threads"][0]["samples"], 2);
    EXPECT_EQ(cpu["threads"][1]["tid"], 45);
    EXPECT_EQ(cpu["threads"][1]["functions"][0]["name"], "m+0x20");
    ASSERT_EQ(cpu["processes"].size(), 1u);
    EXPECT_EQ(cpu["processes"][0]["pid"], 42);
    EXPECT_EQ(cpu["processes"][0]["samples"], 3);
}

TEST_F(SampleFactsTest, CountersAreSummedInTheOrderOfTheirEvents)
{
    m_file.SampleRecordHeader(4, 48, 2, 0, 42).U32(2).U32(0).U64(0x76).U64(0xC0);
    for (uint64_t i = 1; i <= 2; ++i)
    {
        m_file.SampleRecordHeader(3, 40 + 8 + 8 + 64, 3, 100, 43).U64(0).U32(0).U32(1).U64(MODULE);
        m_file.U32(2).U32(0).U64(i * 10).U64(1).U64(1).U64(7).U64(i * 100).U64(1).U64(1).U64(8);
    }
    EXPECT_EQ(Cpu()["threads"][0]["events"],
              Json::parse(R"([{"code": 118, "count": 30}, {"code": 192, "count": 300}])"));
}

TEST_F(SampleFactsTest, AStackThatFillsTheWholeDepthIsCutOff)
{
    AddSample(&m_file, std::vector<uint64_t>(10, 0x11)); // depth 2, and the agent's eight more
    AddSample(&m_file, std::vector<uint64_t>(9, 0x11));
    EXPECT_EQ(Cpu()["threads"][0]["truncated"], 1);
    EXPECT_NE(FullReportText(ReadSessionFacts(m_folder.m_path)).find("cut off: 1 sample"), std::string::npos);
}

TEST_F(SampleFactsTest, TheSameFactsAsText)
{
    AddName(&m_file, "worker", 43);
    for (int i = 0; i < 3; ++i)
    {
        AddSample(&m_file, {0x10, 0x31});
    }
    AddSample(&m_file, {0x20, 0x31});
    Cpu();
    const std::string text = FullReportText(ReadSessionFacts(m_folder.m_path));
    EXPECT_NE(text.find("4 samples, each for 4.00 ms, 16.0 ms in all"), std::string::npos) << text;
    EXPECT_NE(text.find("  75.0 %   75.0 %   12.0 ms  m+0x10  (m)"), std::string::npos) << text;
    EXPECT_NE(text.find("   0.0 %  100.0 %      0 ns  m+0x30  (m)"), std::string::npos) << text;
    EXPECT_NE(text.find("thread worker (43) of process 42"), std::string::npos) << text;
    EXPECT_NE(text.find("1.00 ms were asked for, and the kernel's tick gives a sample every 4.00 ms"),
              std::string::npos)
        << text;
}

TEST_F(SampleFactsTest, ADamagedSampleFileCountsUpToItsDamage)
{
    AddSample(&m_file, {0x10});
    m_file.U32(42);
    Cpu();
    const SessionFacts session = ReadSessionFacts(m_folder.m_path);
    EXPECT_TRUE(IsDamaged(session));
    EXPECT_EQ(SampleCount(session), 1u);
    EXPECT_NE(FullReportText(session).find("damaged: "), std::string::npos);
}
