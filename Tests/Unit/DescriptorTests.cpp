// Opening files and counters, with the one retry after raising the limit on descriptors.
#include "Support.h"

#include <deque>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::Replace;

namespace
{

constexpr uint64_t MINUS_ONE = ~uint64_t{0};

// ---- raising the limit -----------------------------------------------------------------------------------

class FdLimit : public AgentTest
{
protected:
    bool Increase(rlim_t soft, rlim_t hard, int getResult = 0, int setResult = 0)
    {
        Replace get("ZorvUmaGetrlimit",
                    [=](const Call& call)
                    {
                        EXPECT_EQ(call.Arg<int>(0), RLIMIT_NOFILE);
                        *call.Arg<rlimit*>(1) = {soft, hard};
                        return getResult;
                    });
        Replace set("ZorvUmaSetrlimit",
                    [=, this](const Call& call)
                    {
                        EXPECT_EQ(call.Arg<int>(0), RLIMIT_NOFILE);
                        m_set.push_back(*call.Arg<rlimit*>(1));
                        return setResult;
                    });
        return fnIncreaseFdLimit();
    }

    std::vector<rlimit> m_set;
};

TEST_F(FdLimit, SoftBelowHardIsRaisedToHard)
{
    EXPECT_TRUE(Increase(100, 4000));
    ASSERT_EQ(m_set.size(), 1u);
    EXPECT_EQ(m_set[0].rlim_cur, 4000u);
    EXPECT_EQ(m_set[0].rlim_max, 4000u);
}

TEST_F(FdLimit, SoftEqualToHardReturnsFalseAndChangesNothing)
{
    EXPECT_FALSE(Increase(4000, 4000));
    EXPECT_TRUE(m_set.empty());
}

TEST_F(FdLimit, SoftAboveHardReturnsFalseAndChangesNothing)
{
    EXPECT_FALSE(Increase(4001, 4000));
    EXPECT_TRUE(m_set.empty());
}

TEST_F(FdLimit, AnUnlimitedHardLimitIsGreater)
{
    EXPECT_TRUE(Increase(4000, RLIM_INFINITY));
    ASSERT_EQ(m_set.size(), 1u);
    EXPECT_EQ(m_set[0].rlim_cur, RLIM_INFINITY);
}

TEST_F(FdLimit, AFailedReadReturnsFalse)
{
    EXPECT_FALSE(Increase(100, 4000, -1));
    EXPECT_TRUE(m_set.empty());
}

TEST_F(FdLimit, AFailedSetReturnsFalse)
{
    EXPECT_FALSE(Increase(100, 4000, 0, -1));
}

// ---- one retry, for files and for counters ---------------------------------------------------------------

struct Opening // one way to open something
{
    const char* m_pName;
    const char* m_pUnderlying; // what it calls
    std::function<int()> m_open;
    std::vector<uint64_t> m_arguments; // what that gets
};

perf_event_attr g_attributes{};
const char* const g_pPath = "/some/path";

const Opening g_openings[] = {
    {"FileWithoutMode",
     "ZorvUmaOpen",
     [] { return fnOpenFile(g_pPath, O_RDONLY | O_CLOEXEC, 0); },
     {reinterpret_cast<uint64_t>(g_pPath), O_RDONLY | O_CLOEXEC}},
    {"FileWithMode",
     "ZorvUmaOpenWithMode",
     [] { return fnOpenFile(g_pPath, O_WRONLY | O_CREAT, 0640); },
     {reinterpret_cast<uint64_t>(g_pPath), O_WRONLY | O_CREAT, 0640}},
    {"Counter",
     "ZorvUmaPerfEventOpen",
     [] { return fnPerfEventOpen(&g_attributes, 11, 12, 13, 14); },
     {reinterpret_cast<uint64_t>(&g_attributes), 11, 12, 13, 14}},
};

struct Answer
{
    int m_result;
    int m_error;
};

class Open : public AgentTest, public testing::WithParamInterface<Opening>
{
protected:
    int OpenScripted(std::deque<Answer> answers, bool isRaised)
    {
        const Opening& opening = GetParam();
        Replace underlying(opening.m_pUnderlying,
                           [&](const Call& call)
                           {
                               EXPECT_EQ(errno, 0) << "errno is cleared before each try";
                               for (size_t i = 0; i < opening.m_arguments.size(); i++)
                               {
                                   EXPECT_EQ(call.m_words[i], opening.m_arguments[i]) << "argument " << i;
                               }
                               const Answer answer = answers.front();
                               answers.pop_front();
                               errno = answer.m_error;
                               return answer.m_result;
                           });
        Replace raise("fnIncreaseFdLimit",
                      [&](const Call&)
                      {
                          errno = EPERM;
                          return isRaised;
                      });
        errno = EINVAL;
        const int result = opening.m_open();
        m_error = errno;
        m_tries = underlying.Calls();
        m_raises = raise.Calls();
        return result;
    }

    int m_error = 0;
    long m_tries = 0;
    long m_raises = 0;
};

TEST_P(Open, SucceedsAtOnce)
{
    EXPECT_EQ(OpenScripted({{9, 0}}, true), 9);
    EXPECT_EQ(m_tries, 1);
    EXPECT_EQ(m_raises, 0);
}

TEST_P(Open, DescriptorZeroIsASuccess)
{
    EXPECT_EQ(OpenScripted({{0, EMFILE}}, true), 0);
    EXPECT_EQ(m_tries, 1);
}

TEST_P(Open, AnotherErrorIsReturnedUnchanged)
{
    EXPECT_EQ(OpenScripted({{-1, ENOENT}}, true), -1);
    EXPECT_EQ(m_error, ENOENT);
    EXPECT_EQ(m_tries, 1);
    EXPECT_EQ(m_raises, 0);
}

TEST_P(Open, ATableThatIsFullIsTriedOnceMoreAfterRaisingTheLimit)
{
    EXPECT_EQ(OpenScripted({{-1, EMFILE}, {8, 0}}, true), 8);
    EXPECT_EQ(m_tries, 2);
    EXPECT_EQ(m_raises, 1);
}

TEST_P(Open, ThereIsOnlyOneRetry)
{
    EXPECT_EQ(OpenScripted({{-1, EMFILE}, {-1, EMFILE}}, true), -1);
    EXPECT_EQ(m_error, EMFILE);
    EXPECT_EQ(m_tries, 2);
    EXPECT_EQ(m_raises, 1);
}

TEST_P(Open, WithoutARaisedLimitTheFirstFailureIsReturned)
{
    EXPECT_EQ(OpenScripted({{-1, EMFILE}}, false), -1);
    EXPECT_EQ(m_tries, 1);
    EXPECT_EQ(m_raises, 1);
}

INSTANTIATE_TEST_SUITE_P(, Open, testing::ValuesIn(g_openings),
                         [](const auto& info) { return std::string(info.param.m_pName); });

// ---- with the real system behind -------------------------------------------------------------------------

using OpenFile = AgentTest;

TEST_F(OpenFile, AMissingDirectoryIsNotCreated)
{
    TemporaryDirectory directory;
    errno = 0;
    EXPECT_EQ(fnOpenFile((directory / "missing/file").c_str(), O_WRONLY | O_CREAT, 0644), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_NE(access((directory / "missing").c_str(), F_OK), 0);
}

TEST_F(OpenFile, AFullDescriptorTableIsRaisedForReal)
{
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    ASSERT_GT(limit.rlim_max, 64u);
    rlimit low = {20, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    std::vector<int> taken;
    for (int fd; (fd = dup(0)) >= 0;)
    {
        taken.push_back(fd);
    }
    const int fd = fnOpenFile("/dev/null", O_RDONLY, 0);
    EXPECT_GE(fd, 20);
    rlimit raised;
    getrlimit(RLIMIT_NOFILE, &raised);
    EXPECT_EQ(raised.rlim_cur, limit.rlim_max);
    setrlimit(RLIMIT_NOFILE, &limit);
    taken.push_back(fd);
    for (const int each : taken)
    {
        close(each);
    }
}

} // namespace
