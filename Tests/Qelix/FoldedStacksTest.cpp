// Stacks on one line each.
#include "Report/FoldedStacks.h"

#include <gtest/gtest.h>

using namespace qelix;

namespace
{

struct FoldedStacksTest : testing::Test
{
    SessionFacts m_session;

    void SetUp() override
    {
        m_session.m_pSymbolizer = std::make_shared<Symbolizer>();
        for (const char* pName : {"main", "Work(int; char)", "leaf\n"})
        {
            m_session.m_pSymbolizer->m_functions.push_back({pName, "/bin/x"});
        }
        ProcessFacts process;
        process.m_pid = 42;
        process.m_name = "x";
        ThreadSamples thread;
        thread.m_tid = 43;
        thread.m_name = "worker;1";
        process.m_samples.m_threads.push_back(thread);
        m_session.m_processes.push_back(process);
    }

    ThreadSamples* Thread()
    {
        return &m_session.m_processes[0].m_samples.m_threads[0];
    }

    std::string Folded() const
    {
        std::string text;
        WriteFoldedStacks(m_session, [&text](const std::string& line) { text += line; });
        return text;
    }
};

} // namespace

TEST_F(FoldedStacksTest, EqualStacksAreOneLineFromTheOutermostFrameOn)
{
    AddStack(Thread(), {2, 1, 0}, true);
    AddStack(Thread(), {1, 0}, true);
    AddStack(Thread(), {2, 1, 0}, true);
    EXPECT_EQ(Folded(), "x (42);worker:1 (43);main;Work(int: char) 1\n"
                        "x (42);worker:1 (43);main;Work(int: char);leaf\\x0a 2\n");
}

TEST_F(FoldedStacksTest, ARecursionKeepsItsFramesAndCountsOnce)
{
    AddStack(Thread(), {0, 0, 0}, true);
    EXPECT_EQ(Folded(), "x (42);worker:1 (43);main;main;main 1\n");
    EXPECT_EQ(Thread()->m_functions[0].m_self, 1u);
    EXPECT_EQ(Thread()->m_functions[0].m_total, 1u);
}

TEST_F(FoldedStacksTest, WithoutStacksThereAreNone)
{
    AddStack(Thread(), {0}, false);
    AddStack(Thread(), {}, true);
    EXPECT_EQ(Folded(), "");
    EXPECT_EQ(Thread()->m_samples, 2u);
}
