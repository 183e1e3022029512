// Who started whom, from what the session's files say.
#include "Report/ProcessTree.h"
#include "FileBytes.h"
#include "Session/SessionRecord.h"

#include <gtest/gtest.h>

using namespace qelix;

namespace
{

bool HasNothing(const MarkedPid&, const std::string&)
{
    return false;
}

std::vector<MarkedPid> Ids(const std::vector<pid_t>& pids, const std::string& mark = "")
{
    std::vector<MarkedPid> ids;
    for (const pid_t pid : pids)
    {
        ids.push_back({mark, pid});
    }
    return ids;
}

std::vector<std::pair<pid_t, unsigned>> RowsOf(const ProcessTree& tree, const std::vector<pid_t>& recorded)
{
    std::vector<std::pair<pid_t, unsigned>> rows;
    for (const TreeRow& row : TreeRows(tree, Ids(recorded)))
    {
        rows.emplace_back(row.m_process.m_pid, row.m_depth);
    }
    return rows;
}

using Rows = std::vector<std::pair<pid_t, unsigned>>;

} // namespace

TEST(ProcessTree, EachProcessStandsBehindItsParentAndDeeper)
{
    SessionRecord record;
    record.m_parentOf = {{{"", 10}, 1}, {{"", 11}, 10}, {{"", 13}, 11}, {{"", 12}, 10}};
    const ProcessTree tree = MakeProcessTree(record, {}, Ids({10, 11, 12, 13}), HasNothing);
    EXPECT_EQ(RowsOf(tree, {10, 11, 12, 13}), (Rows{{10, 0}, {11, 1}, {13, 2}, {12, 1}}));
    EXPECT_TRUE(tree.m_unrecorded.empty());
}

TEST(ProcessTree, AProcessWithoutAKnownParentStandsAlone)
{
    EXPECT_EQ(RowsOf(MakeProcessTree({}, {}, Ids({20, 30}), HasNothing), {20, 30}), (Rows{{20, 0}, {30, 0}}));
}

TEST(ProcessTree, ACircleOfParentsHoldsNobody)
{
    SessionRecord record;
    record.m_parentOf = {{{"", 10}, 11}, {{"", 11}, 10}, {{"", 12}, 12}};
    const ProcessTree tree = MakeProcessTree(record, {}, Ids({10, 11, 12}), HasNothing);
    EXPECT_EQ(RowsOf(tree, {10, 11, 12}), (Rows{{12, 0}, {10, 0}, {11, 1}}));
}

TEST(ProcessTree, TheLogsTellOfChildrenThatWereLeftOut)
{
    const TestFolder folder;
    folder.Write(".log/ZorvUmtAgent_host_sh_10.txt",
                 std::string("INFO : 11 : 11: Process id (11) is not sampled or traced.\n"
                             "INFO : 10 : 10: Lost trace records count = 0\n"));
    const AgentLogFacts log = ReadAgentLogs(folder.m_path);
    const ProcessTree tree = MakeProcessTree({}, log, Ids({10}), HasNothing);
    ASSERT_EQ(tree.m_unrecorded.size(), 1u);
    EXPECT_EQ(tree.m_unrecorded[0].m_process.m_pid, 11);
    EXPECT_EQ(RowsOf(tree, {10}), (Rows{{10, 0}, {11, 1}}));
}

TEST(ProcessTree, AnExecWhoseFileWasNeverMappedRanWithoutTheAgent)
{
    const TestFolder folder;
    folder.Write(".log/ZorvUmtAgent_host_sh_10.txt", std::string("INFO : 11 : 11: execve : /bin/cat.\n"
                                                                 "INFO : 12 : 12: execve : /bin/ls.\n"
                                                                 "INFO : 13 : 13: execve : /nonexistent/tool.\n"
                                                                 "INFO : 10 : 10: execve : nonsense"));
    const AgentLogFacts log = ReadAgentLogs(folder.m_path);
    const auto hasMapped = [](const MarkedPid& process, const std::string& file)
    { return process.m_pid == 11 && file == "/usr/bin/cat"; };
    const ProcessTree tree = MakeProcessTree({}, log, Ids({10, 11}), hasMapped);
    ASSERT_EQ(tree.m_unrecorded.size(), 1u);
    EXPECT_EQ(tree.m_unrecorded[0].m_process.m_pid, 12);
    EXPECT_EQ(tree.m_unrecorded[0].m_program, "/bin/ls");
    EXPECT_EQ(RowsOf(tree, {10, 11}), (Rows{{10, 0}, {11, 1}, {12, 1}}));
}

TEST(ProcessTree, OfSeveralExecsTheLastOneCounts)
{
    const TestFolder folder;
    folder.Write(".log/ZorvUmtAgent_host_cat_11.txt", std::string("INFO : 11 : 11: execve : /bin/ls.\n"));
    folder.Write(".log/ZorvUmtAgent_host_sh_10.txt", std::string("INFO : 11 : 11: execve : /bin/cat.\n"));
    const auto hasMapped = [](const MarkedPid& process, const std::string& file)
    { return process.m_pid == 11 && file == "/usr/bin/ls"; };
    EXPECT_TRUE(
        MakeProcessTree({}, ReadAgentLogs(folder.m_path), Ids({10, 11}), hasMapped).m_unrecorded.empty());
}

TEST(ProcessTree, ProcessesOfOneIdInMergedSessionsHaveParentsOfTheirOwn)
{
    const TestFolder folder;
    folder.Write(".log/ZorvUmtAgent_s0@host_sh_10.txt",
                 std::string("INFO : 11 : 11: Process id (11) is not sampled or traced.\n"));
    folder.Write(".log/ZorvUmtAgent_s1@host_sh_20.txt", std::string("INFO : 11 : 11: execve : /bin/cat.\n"));
    SessionRecord record;
    record.m_parentOf = {{{"s0@", 10}, 20}, {{"s1@", 10}, 11}};
    const std::vector<MarkedPid> recorded = {{"s0@", 10}, {"s1@", 10}, {"s1@", 11}, {"s1@", 20}};
    const auto hasMapped = [](const MarkedPid& process, const std::string& file) {
        return process == MarkedPid{"s1@", 11} && file == "/usr/bin/cat";
    };
    const ProcessTree tree = MakeProcessTree(record, ReadAgentLogs(folder.m_path), recorded, hasMapped);
    ASSERT_EQ(tree.m_unrecorded.size(), 1u);
    EXPECT_EQ(tree.m_unrecorded[0].m_process, (MarkedPid{"s0@", 11}));
    std::string text;
    for (const TreeRow& row : TreeRows(tree, recorded))
    {
        text +=
            std::string(row.m_depth, '>') + row.m_process.m_mark + std::to_string(row.m_process.m_pid) + ' ';
    }
    EXPECT_EQ(text, "s0@10 >s0@11 s1@20 >s1@11 >>s1@10 ");
}

TEST(ProcessTree, AFilesNameTellsTheMarkOnlyWhereThereIsOne)
{
    EXPECT_EQ(MarkedPidInFileName("/x/trace_s1@host_12.umt"), (MarkedPid{"s1@", 12}));
    EXPECT_EQ(MarkedPidInFileName("/x/trace_s12@s0@host_12.umt"), (MarkedPid{"s12@s0@", 12}));
    for (const char* pName :
         {"/x/trace_s1-node_12.umt", "/x/trace_s@host_12.umt", "trace_server_12.umt", "s_12"})
    {
        EXPECT_EQ(MarkedPidInFileName(pName), (MarkedPid{"", 12})) << pName;
    }
}
