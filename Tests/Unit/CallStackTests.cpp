// The buffers for call stacks.
#include "Support.h"

#include <malloc.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::Fails;
using faults::NoMemory;
using faults::Replace;

namespace
{

class CallStackBuffers : public RecordingTest
{
protected:
    bool Allocate(bool isTracing, bool isSampling, bool withStacks, uint32_t depth = 24)
    {
        m_pInfo->m_umtConfig.m_enable = isTracing;
        m_pInfo->m_umsConfig.m_enable = isSampling;
        m_pInfo->m_umsConfig.m_collectCallStack = withStacks;
        m_pInfo->m_umaConfig.m_callStackDepth = depth;
        const auto note = [this](const Call& call, size_t size)
        {
            m_sizes.push_back(size);
            return call.PassOn();
        };
        Replace malloc("ZorvUmaMalloc", [&](const Call& call) { return note(call, call.Arg<size_t>(0)); });
        Replace calloc("ZorvUmaCalloc",
                       [&](const Call& call) { return note(call, call.Arg<size_t>(0) * call.Arg<size_t>(1)); });
        return ZorvUmaAllocateCsBuf(m_pInfo);
    }

    std::string Message(const char* pKind)
    {
        return Format("ERROR Failed to allocate the %s cs buffer in pid (%d) and tid (%ld).", pKind, getpid(),
                      syscall(SYS_gettid));
    }

    std::vector<size_t> m_sizes;
};

TEST_F(CallStackBuffers, TracingMakesTheTraceBuffer)
{
    EXPECT_TRUE(Allocate(true, false, true));
    EXPECT_NE(m_pThread->m_pUmtCsBuf, nullptr);
    EXPECT_EQ(m_pThread->m_pUmsCsBuf, nullptr);
    EXPECT_EQ(m_sizes, std::vector<size_t>{32 * 8}) << "the depth and eight more";
}

TEST_F(CallStackBuffers, SamplingMakesTheSampleBufferOnlyWithStacks)
{
    EXPECT_TRUE(Allocate(false, true, false));
    EXPECT_EQ(m_pThread->m_pUmsCsBuf, nullptr);
    EXPECT_TRUE(Allocate(false, true, true));
    EXPECT_NE(m_pThread->m_pUmsCsBuf, nullptr);
    EXPECT_EQ(m_pThread->m_pUmtCsBuf, nullptr);
    EXPECT_EQ(m_sizes, std::vector<size_t>{32 * 8});
}

TEST_F(CallStackBuffers, BothAreMade)
{
    EXPECT_TRUE(Allocate(true, true, true, 0));
    EXPECT_NE(m_pThread->m_pUmtCsBuf, nullptr);
    EXPECT_NE(m_pThread->m_pUmsCsBuf, nullptr);
    EXPECT_EQ(m_sizes, (std::vector<size_t>{64, 64}));
}

TEST_F(CallStackBuffers, ADepthThatWrapsToZeroAllocatesNothingAndSucceeds)
{
    EXPECT_TRUE(Allocate(true, true, true, 0xFFFFFFF8));
    EXPECT_TRUE(m_sizes.empty());
    EXPECT_EQ(m_pThread->m_pUmtCsBuf, nullptr);
    EXPECT_EQ(m_pThread->m_pUmsCsBuf, nullptr);
}

TEST_F(CallStackBuffers, TheSumIsOf32Bits)
{
    EXPECT_TRUE(Allocate(true, false, false, 0xFFFFFFF9));
    EXPECT_EQ(m_sizes, std::vector<size_t>{8});
}

TEST_F(CallStackBuffers, NeedAProcessRecordAndNoThreadRecord)
{
    EXPECT_FALSE(ZorvUmaAllocateCsBuf(nullptr));
    ZorvUmaFreeThreadInfo();
    EXPECT_TRUE(Allocate(true, true, true));
    EXPECT_TRUE(m_sizes.empty());
}

TEST_F(CallStackBuffers, WithoutMemoryForTheTraceBufferTheSampleBufferIsStillMade)
{
    long requests = 0;
    const auto refuseFirst = [&](const Call& call, size_t size)
    { return size == 256 && ++requests == 1 ? 0 : call.PassOn(); };
    Replace malloc("ZorvUmaMalloc", [&](const Call& call) { return refuseFirst(call, call.Arg<size_t>(0)); });
    Replace calloc("ZorvUmaCalloc", [&](const Call& call)
                   { return refuseFirst(call, call.Arg<size_t>(0) * call.Arg<size_t>(1)); });
    EXPECT_FALSE(Allocate(true, true, true));
    EXPECT_EQ(m_pThread->m_pUmtCsBuf, nullptr);
    EXPECT_NE(m_pThread->m_pUmsCsBuf, nullptr);
    EXPECT_EQ(Log(), Strings{Message("trace")});
}

TEST_F(CallStackBuffers, WithoutMemoryForTheSampleBufferFails)
{
    NoMemory noMemory(256, 257, 1);
    EXPECT_FALSE(Allocate(true, true, true));
    EXPECT_NE(m_pThread->m_pUmtCsBuf, nullptr);
    EXPECT_EQ(m_pThread->m_pUmsCsBuf, nullptr);
    EXPECT_EQ(Log(), Strings{Message("sample")});
}

TEST_F(CallStackBuffers, WithoutAnyMemoryBothAreLogged)
{
    NoMemory noMemory(256, 257);
    EXPECT_FALSE(Allocate(true, true, true));
    EXPECT_EQ(Log(), (Strings{Message("trace"), Message("sample")}));
}

} // namespace
