// session.json: what is written is read back, and whatever stands there instead does no harm.
#include "Session/SessionRecord.h"
#include "FileBytes.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>

using namespace qelix;

namespace
{

SessionRecord FullRecord()
{
    SessionRecord record;
    record.m_command = {"prog", "\xff"};
    record.m_programPid = 77;
    record.m_tickNs = 4'000'000;
    record.m_parentOf = {{{"", 78}, 77}, {{"s1@", 78}, 5}};
    record.m_waitStatus = 256;
    record.m_program = "/bin/prog";
    record.m_agentVersion = "1.2.3";
    record.m_agentBuildId = "abcd";
    record.m_machine = {"host", "boot", "Linux 6", "me"};
    record.m_launcherPid = 76;
    record.m_blockName = "/qelix-76-1";
    record.m_rank = 70'000;
    record.m_intervalNs = 10'000'000;
    record.m_depth = 64;
    record.m_thresholds = DefaultThresholds();
    record.m_thresholds[ZORV_CLASS_LOCK] = std::nullopt;
    record.m_profileChildren = false;
    record.m_start = ClockPair{1, 2};
    record.m_end = ClockPair{UINT64_MAX, 4};
    record.m_budgetBytes = 1 << 20;
    record.m_isBudgetReached = true;
    record.m_isStopped = true;
    record.m_buildIds = {{"/bin/prog", "0123"}};
    return record;
}

std::string TextOf(const TestFolder& folder)
{
    std::ifstream file(folder.m_path + "/session.json");
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

} // namespace

TEST(SessionRecord, IsReadBack)
{
    const TestFolder folder;
    const SessionRecord record = FullRecord();
    ASSERT_TRUE(WriteSessionRecord(folder.m_path, record));
    const SessionRecord read = ReadSessionRecord(folder.m_path);
    EXPECT_EQ(read.m_command.at(0), "prog");
    EXPECT_EQ(read.m_programPid, 77);
    EXPECT_EQ(read.m_tickNs, 4'000'000u);
    EXPECT_EQ(read.m_waitStatus, 256);
    EXPECT_EQ(read.m_parentOf, record.m_parentOf);
    EXPECT_EQ(read.m_program, record.m_program);
    EXPECT_EQ(read.m_agentVersion, record.m_agentVersion);
    EXPECT_EQ(read.m_agentBuildId, record.m_agentBuildId);
    EXPECT_EQ(read.m_machine.m_host, "host");
    EXPECT_EQ(read.m_machine.m_bootId, "boot");
    EXPECT_EQ(read.m_machine.m_kernel, "Linux 6");
    EXPECT_EQ(read.m_machine.m_user, "me");
    EXPECT_EQ(read.m_launcherPid, 76);
    EXPECT_EQ(read.m_blockName, record.m_blockName);
    EXPECT_EQ(read.m_rank, 70'000);
    EXPECT_EQ(read.m_intervalNs, record.m_intervalNs);
    EXPECT_EQ(read.m_depth, 64u);
    EXPECT_EQ(read.m_thresholds, record.m_thresholds);
    EXPECT_FALSE(read.m_profileChildren);
    ASSERT_TRUE(read.m_start && read.m_end);
    EXPECT_EQ(read.m_start->m_realtimeNs, 2u);
    EXPECT_EQ(read.m_end->m_monotonicNs, UINT64_MAX);
    EXPECT_EQ(read.m_budgetBytes, record.m_budgetBytes);
    EXPECT_TRUE(read.m_isBudgetReached);
    EXPECT_TRUE(read.m_isStopped);
    EXPECT_EQ(read.m_buildIds, record.m_buildIds);
}

TEST(SessionRecord, OfAnEarlierQelixIsReadForWhatItHas)
{
    const TestFolder folder;
    folder.Write("session.json",
                 std::string("{\"version\": 1, \"command\": [\"a\"], \"pid\": 5, \"tickNs\": 1, "
                             "\"waitStatus\": 0, \"processes\": [{\"pid\": 6, \"parent\": 5}]}"));
    const SessionRecord read = ReadSessionRecord(folder.m_path);
    EXPECT_EQ(read.m_programPid, 5);
    EXPECT_EQ(read.m_parentOf.at({"", 6}), 5);
    EXPECT_EQ(read.m_agentVersion, "");
    EXPECT_FALSE(read.m_start);
    EXPECT_TRUE(read.m_buildIds.empty());
}

TEST(SessionRecord, OfALaterQelixIsReadForWhatIsKnown)
{
    const TestFolder folder;
    folder.Write("session.json", std::string("{\"version\": 99, \"pid\": 5, \"news\": {}}"));
    EXPECT_EQ(ReadSessionRecord(folder.m_path).m_programPid, 5);
}

TEST(SessionRecord, WithoutAVersionOrShapeSaysNothing)
{
    const TestFolder folder;
    for (const char* pText : {"", "{", "[]", "null", "{\"pid\": 1}", "{\"version\": 0, \"pid\": 1}",
                              "{\"version\": \"2\", \"pid\": 1}",
                              "{\"version\": 1, \"processes\": [1, {\"pid\": \"x\"}], \"command\": 3}"})
    {
        folder.Write("session.json", std::string(pText));
        EXPECT_EQ(ReadSessionRecord(folder.m_path).m_programPid, 0) << pText;
    }
}

TEST(SessionRecord, CutOffAnywhereSaysNothing)
{
    const TestFolder folder;
    ASSERT_TRUE(WriteSessionRecord(folder.m_path, FullRecord()));
    const std::string text = TextOf(folder);
    for (std::size_t size = 0; size + 2 < text.size(); ++size)
    {
        folder.Write("session.json", text.substr(0, size));
        EXPECT_EQ(ReadSessionRecord(folder.m_path).m_programPid, 0) << size;
    }
}

TEST(SessionRecord, AMemberOfAnotherTypeIsAsGoodAsMissing)
{
    const TestFolder folder;
    for (const char* pValue : {"null", "-1", "1e300", "\"x\"", "[]", "{}", "true", "[{\"pid\":{}}]",
                               "{\"monotonicNs\": {}}", "{\"/bin/x\": 5}", "18446744073709551616"})
    {
        std::string text = "{\"version\": 2";
        for (const char* pKey : {"command", "pid", "tickNs", "waitStatus", "processes", "program", "host",
                                 "launcherPid", "block", "rank", "intervalNs", "stackDepth", "thresholdsNs",
                                 "children", "start", "end", "budgetBytes", "buildIds"})
        {
            text += std::string(", \"") + pKey + "\": " + pValue;
        }
        folder.Write("session.json", text + "}");
        const SessionRecord read = ReadSessionRecord(folder.m_path);
        EXPECT_TRUE(read.m_buildIds.empty()) << pValue;
        EXPECT_FALSE(read.m_start) << pValue;
        EXPECT_TRUE(read.m_parentOf.empty()) << pValue;
    }
}

TEST(SessionRecord, WhatIsNoPlainFileIsNotRead)
{
    const TestFolder folder;
    ASSERT_EQ(mkfifo((folder.m_path + "/session.json").c_str(), 0600), 0);
    EXPECT_EQ(ReadSessionRecord(folder.m_path).m_programPid, 0) << "and nobody waits for its end";
}

TEST(SessionRecord, ADeepNestIsNoTrouble)
{
    const TestFolder folder;
    folder.Write("session.json",
                 std::string("{\"version\": 2, \"pid\": 5, \"x\": ") + std::string(500'000, '['));
    EXPECT_EQ(ReadSessionRecord(folder.m_path).m_programPid, 0);
}
