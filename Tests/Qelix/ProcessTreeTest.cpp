// Who started whom, from what the session's files say.
#include "Report/ProcessTree.h"
#include "FileBytes.h"
#include "Session/SessionRecord.h"

#include <gtest/gtest.h>

using namespace qelix;

namespace
{

bool HasNothing(pid_t, const std::string&)
{
    return false;
}

std::vector<std::pair<pid_t, unsigned>> RowsOf(const ProcessTree& tree, const std::vector<pid_t>& recorded)
{
    std::vector<std::pair<pid_t, unsigned>> rows;
    for (const TreeRow& row : TreeRows(tree, recorded))
    {
        rows.emplace_back(row.m_pid, row.m_depth);
    }
    return rows;
}

using Rows = std::vector<std::pair<pid_t, unsigned>>;

} // namespace

TEST(ProcessTree, EachProcessStandsBehindItsParentAndDeeper)
{
    SessionRecord record;
    record.m_parentOf = {{10, 1}, {11, 10}, {13, 11}, {12, 10}};
    const ProcessTree tree = MakeProcessTree(record, {}, {10, 11, 12, 13}, HasNothing);
    EXPECT_EQ(RowsOf(tree, {10, 11, 12, 13}), (Rows{{10, 0}, {11, 1}, {13, 2}, {12, 1}}));
    EXPECT_TRUE(tree.m_unrecorded.empty());
}

TEST(ProcessTree, AProcessWithoutAKnownParentStandsAlone)
{
    EXPECT_EQ(RowsOf(MakeProcessTree({}, {}, {20, 30}, HasNothing), {20, 30}), (Rows{{20, 0}, {30, 0}}));
}

TEST(ProcessTree, ACircleOfParentsHoldsNobody)
{
    SessionRecord record;
    record.m_parentOf = {{10, 11}, {11, 10}, {12, 12}};
    const ProcessTree tree = MakeProcessTree(record, {}, {10, 11, 12}, HasNothing);
    EXPECT_EQ(RowsOf(tree, {10, 11, 12}), (Rows{{12, 0}, {10, 0}, {11, 1}}));
}

TEST(ProcessTree, TheLogsTellOfChildrenThatWereLeftOut)
{
    const TestFolder folder;
    folder.Write(".log/ZorvUmtAgent_host_sh_10.txt",
                 std::string("INFO : 11 : 11: Process id (11) is not sampled or traced.\n"
                             "INFO : 10 : 10: Lost trace records count = 0\n"));
    const AgentLogFacts log = ReadAgentLogs(folder.m_path);
    const ProcessTree tree = MakeProcessTree({}, log, {10}, HasNothing);
    ASSERT_EQ(tree.m_unrecorded.size(), 1u);
    EXPECT_EQ(tree.m_unrecorded[0].m_pid, 11);
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
    const auto hasMapped = [](pid_t pid, const std::string& file)
    { return pid == 11 && file == "/usr/bin/cat"; };
    const ProcessTree tree = MakeProcessTree({}, log, {10, 11}, hasMapped);
    ASSERT_EQ(tree.m_unrecorded.size(), 1u);
    EXPECT_EQ(tree.m_unrecorded[0].m_pid, 12);
    EXPECT_EQ(tree.m_unrecorded[0].m_program, "/bin/ls");
    EXPECT_EQ(RowsOf(tree, {10, 11}), (Rows{{10, 0}, {11, 1}, {12, 1}}));
}

TEST(ProcessTree, OfSeveralExecsTheLastOneCounts)
{
    const TestFolder folder;
    folder.Write(".log/ZorvUmtAgent_host_cat_11.txt", std::string("INFO : 11 : 11: execve : /bin/ls.\n"));
    folder.Write(".log/ZorvUmtAgent_host_sh_10.txt", std::string("INFO : 11 : 11: execve : /bin/cat.\n"));
    const auto hasMapped = [](pid_t pid, const std::string& file)
    { return pid == 11 && file == "/usr/bin/ls"; };
    EXPECT_TRUE(MakeProcessTree({}, ReadAgentLogs(folder.m_path), {10, 11}, hasMapped).m_unrecorded.empty());
}
