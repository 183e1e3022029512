// How each entry point finds the function behind it. A test a process: what was found is never looked up again.
#include "FakeLibrary.h"

#include <dlfcn.h>

using namespace agent;

namespace
{

class EntryLookUp : public InterposerTest, public testing::WithParamInterface<Entry>
{
protected:
    // This program answers look-ups in libc's place, so that each is made when it is due.
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(InterposerTest::SetUp());
        ASSERT_EQ(g_library.m_lookUps, std::vector<LookUp>{});
    }

    LookUp Expected()
    {
        const Entry& entry = GetParam();
        return {RTLD_NEXT, entry.m_pLibcName, entry.m_pVersion != nullptr ? entry.m_pVersion : ""};
    }

    // For the members that look at their arguments only when the thread is not stopped.
    int CallUntraced()
    {
        m_pThread->m_stopCollection = true;
        return CallEntry(GetParam());
    }
};

TEST_P(EntryLookUp, FailsWithTheMessageOnEveryCallAndReturnsMinusOne)
{
    const Entry& entry = GetParam();
    g_library.m_isMissing = true;
    StandardError standardError;
    for (size_t i = 1; i <= 2; i++)
    {
        errno = 77;
        const int result = CallUntraced();
        EXPECT_EQ(errno, 77);
        if (entry.m_pattern != Pattern::EXIT) // which has no result
        {
            EXPECT_EQ(result, -1);
        }
        EXPECT_EQ(standardError.Take(),
                  Format("Failed to get the symbol address for (%s).\n", entry.m_pLibcName));
        ASSERT_EQ(g_library.m_lookUps.size(), i);
        EXPECT_EQ(g_library.m_lookUps.back(), Expected());
    }
    EXPECT_TRUE(g_library.m_calls.empty());
}

TEST_P(EntryLookUp, ThatFailedIsTriedAgain)
{
    g_library.m_isMissing = true;
    {
        StandardError ignored;
        CallUntraced();
    }
    g_library.m_isMissing = false;
    RunToExit([this] { CallUntraced(); });
    EXPECT_EQ(g_library.m_calls.size(), 1u);
}

TEST_P(EntryLookUp, IsMadeOnceForEachEntry)
{
    StandardError standardError;
    for (int i = 0; i < 3; i++)
    {
        errno = 77;
        RunToExit([this] { CallUntraced(); });
        EXPECT_EQ(errno, 77) << "also on the first call";
    }
    EXPECT_EQ(g_library.m_lookUps, std::vector<LookUp>{Expected()});
    EXPECT_EQ(g_library.m_calls.size(), 3u);
    EXPECT_EQ(standardError.Take(), "");
}

TEST_P(EntryLookUp, ArgumentsAndResultPassUnchanged)
{
    const Entry& entry = GetParam();
    g_library.m_result = -12345;
    g_library.m_errno = EOWNERDEAD;
    int result = -12345;
    RunToExit([&] { result = CallUntraced(); });
    EXPECT_EQ(result, -12345);
    EXPECT_EQ(errno, EOWNERDEAD);
    ASSERT_EQ(g_library.m_calls.size(), 1u);
    const std::vector<uint64_t> expected = ArgumentsOf(entry);
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), g_library.m_calls[0].begin()));
}

INSTANTIATE_TEST_SUITE_P(, EntryLookUp, testing::ValuesIn(Entries()), EntryName);

} // namespace
