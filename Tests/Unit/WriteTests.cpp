// The one wrapper with a loop of its own, and the one whose name libc lacks.
#include "Support.h"

#include <cstring>
#include <deque>
#include <sys/wait.h>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::Replace;

namespace
{

struct Step // one call of the real write: what it answers
{
    ssize_t m_result;
    int m_error;
};

struct Piece
{
    int m_fd;
    const char* m_pBytes;
    size_t m_count;
    bool operator==(const Piece&) const = default;
};

std::deque<Step> g_steps;
std::vector<Piece> g_pieces;

ssize_t ScriptedWrite(int fd, const char* pBytes, size_t count)
{
    g_pieces.push_back({fd, pBytes, count});
    const Step step = g_steps.empty() ? Step{-1, EIO} : g_steps.front();
    if (!g_steps.empty())
    {
        g_steps.pop_front();
    }
    errno = step.m_error != 0 ? step.m_error : errno;
    return step.m_result;
}

class Write : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(LoadAgent(AgentStart::WITHOUT_LIBC));
        Handlers()->m_pLibcHandle = reinterpret_cast<void*>(0xC0DE0001);
        g_steps.clear();
        g_pieces.clear();
    }

    void TearDown() override
    {
        *Handlers() = {};
    }

    ssize_t WriteScripted(std::deque<Step> steps, size_t count = 10)
    {
        g_steps = std::move(steps);
        g_pieces.clear();
        Replace lookUp("dlsym", [](const Call&) { return reinterpret_cast<uint64_t>(ScriptedWrite); });
        return ZorvUmaWrite(5, m_bytes, count);
    }

    char m_bytes[16] = "0123456789";
};

// First of its file: a look-up that succeeded is never made again.
TEST_F(Write, SaysOnEveryCallThatTheNameIsMissing)
{
    StandardError standardError;
    std::vector<std::string> names;
    Replace lookUp("dlsym",
                   [&](const Call& call)
                   {
                       EXPECT_EQ(call.Arg<void*>(0), Handlers()->m_pLibcHandle);
                       names.emplace_back(call.Arg<const char*>(1));
                       return 0;
                   });
    EXPECT_EQ(ZorvUmaWrite(1, m_bytes, 10), -1);
    EXPECT_EQ(ZorvUmaWrite(1, m_bytes, 10), -1);
    EXPECT_EQ(standardError.Take(), Times(2, "Failed to get the symbol address for function (write).\n"));
    EXPECT_EQ(names, (Strings{"write", "write"}));
}

TEST_F(Write, FallsBackToNoOtherObjectWithoutLibc)
{
    Handlers()->m_pLibcHandle = nullptr;
    StandardError standardError;
    Replace lookUp("dlsym",
                   [&](const Call& call)
                   {
                       EXPECT_EQ(call.Arg<void*>(0), nullptr);
                       return 0;
                   });
    EXPECT_EQ(ZorvUmaWrite(1, m_bytes, 10), -1);
    EXPECT_EQ(standardError.Take(), "Failed to get the symbol address for function (write).\n");
}

TEST_F(Write, WithNothingToLookUpNullAndNegativeComeFirst)
{
    StandardError standardError;
    Replace lookUp("dlsym", faults::Fails(0));
    EXPECT_EQ(ZorvUmaWrite(-1, m_bytes, 10), 0);
    EXPECT_EQ(ZorvUmaWrite(1, nullptr, 10), 0);
    EXPECT_EQ(lookUp.Calls(), 0);
    EXPECT_EQ(standardError.Take(), "");
}

TEST_F(Write, ACountOfZeroIsLookedUpFirst)
{
    StandardError standardError;
    Replace lookUp("dlsym", faults::Fails(0));
    EXPECT_EQ(ZorvUmaWrite(1, m_bytes, 0), -1);
    EXPECT_EQ(standardError.Take(), "Failed to get the symbol address for function (write).\n");
}

TEST_F(Write, NothingOrNowhereReturnsZeroWithoutWriting)
{
    EXPECT_EQ(WriteScripted({{10, 0}}), 10); // the name is known from here on
    g_pieces.clear();
    EXPECT_EQ(ZorvUmaWrite(5, m_bytes, 0), 0);
    EXPECT_EQ(ZorvUmaWrite(-1, m_bytes, 10), 0);
    EXPECT_EQ(ZorvUmaWrite(5, nullptr, 10), 0);
    EXPECT_TRUE(g_pieces.empty());
}

TEST_F(Write, TenBytesDoneAsSixThenFourReturnFour)
{
    EXPECT_EQ(WriteScripted({{6, 0}, {4, 0}}), 4);
    EXPECT_EQ(g_pieces, (std::vector<Piece>{{5, m_bytes, 10}, {5, m_bytes + 6, 4}}));
}

TEST_F(Write, AnInterruptedWriteIsRepeated)
{
    EXPECT_EQ(WriteScripted({{-1, EINTR}, {-1, EINTR}, {10, 0}}), 10);
    EXPECT_EQ(g_pieces, (std::vector<Piece>{{5, m_bytes, 10}, {5, m_bytes, 10}, {5, m_bytes, 10}}));
}

TEST_F(Write, AnInterruptionAfterAPieceContinuesBehindIt)
{
    EXPECT_EQ(WriteScripted({{3, 0}, {-1, EINTR}, {7, 0}}), 7);
    EXPECT_EQ(g_pieces, (std::vector<Piece>{{5, m_bytes, 10}, {5, m_bytes + 3, 7}, {5, m_bytes + 3, 7}}));
}

TEST_F(Write, AnyOtherErrorStopsAndIsReturned)
{
    EXPECT_EQ(WriteScripted({{6, 0}, {-1, ENOSPC}}), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(g_pieces.size(), 2u);
}

TEST_F(Write, AnEmptyWriteIsRepeated)
{
    EXPECT_EQ(WriteScripted({{6, 0}, {0, 0}, {4, 0}}), 4);
    EXPECT_EQ(g_pieces, (std::vector<Piece>{{5, m_bytes, 10}, {5, m_bytes + 6, 4}, {5, m_bytes + 6, 4}}));
}

TEST_F(Write, AFileThatNeverTakesAnythingIsGivenUp)
{
    EXPECT_EQ(WriteScripted(std::deque<Step>(10000, Step{0, 0})), 0);
    EXPECT_LT(g_pieces.size(), 100u);
}

// ---- atexit ----------------------------------------------------------------------------------------------

int g_exitPipe = -1;

void ReportExit()
{
    (void)!write(g_exitPipe, "ran", 3);
}

using Atexit = Write;

// libc.so.6 has no atexit: the function is registered all the same, and nothing is said.
TEST_F(Atexit, RegistersWhereLibcLacksTheName)
{
    Handlers()->m_pLibcHandle = nullptr;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    StandardError standardError;
    std::vector<std::string> names;
    const pid_t child = fork();
    if (child == 0)
    {
        g_exitPipe = ends[1];
        exit(ZorvUmaAtexit(ReportExit));
    }
    close(ends[1]);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    char said[8] = {};
    EXPECT_EQ(read(ends[0], said, sizeof said), 3);
    close(ends[0]);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(standardError.Take(), "");
}

uint64_t TakeFunction(void (*)())
{
    return 0;
}

TEST_F(Atexit, TakesTheNameWhereThereIsOne)
{
    std::vector<std::string> names;
    Replace lookUp("dlsym",
                   [&](const Call& call)
                   {
                       names.emplace_back(call.Arg<const char*>(1));
                       return reinterpret_cast<uint64_t>(TakeFunction);
                   });
    EXPECT_EQ(ZorvUmaAtexit(ReportExit), 0);
    EXPECT_EQ(names, Strings{"atexit"});
}

} // namespace
