// Calls that reach into the agent's own state, with a fake behind the agent that says what reached it.
#pragma once

#include "Support.h"

#include <cstring>
#include <dlfcn.h>
#include <functional>
#include <unistd.h>

namespace agent
{

using faults::Call;
using faults::CallLog;
using faults::Fails;
using faults::NoMemory;
using faults::Replace;

struct Behind
{
    std::vector<std::array<uint64_t, 7>> m_calls;
    uint64_t m_result = 0;
    std::function<void()> m_during;
};

inline Behind g_behind;

inline uint64_t Fake(uint64_t a, uint64_t b, uint64_t c, uint64_t d, uint64_t e, uint64_t f, uint64_t g)
{
    g_behind.m_calls.push_back({a, b, c, d, e, f, g});
    if (g_behind.m_during)
    {
        g_behind.m_during();
    }
    errno = EOWNERDEAD;
    return g_behind.m_result;
}

inline uint64_t Word(const void* pAddress)
{
    return reinterpret_cast<uint64_t>(pAddress);
}

class StateCalls : public RecordingTest
{
protected:
    StateCalls()
        : m_lookUp("dlsym", [](const Call& call) { return AnswerLookUp(call); }),
          m_versioned("dlvsym", [](const Call& call) { return AnswerLookUp(call); }),
          m_clock("ZorvUmaGetTime", [this](const Call&) { return m_now += 10; })
    {
    }

    static uint64_t AnswerLookUp(const Call& call)
    {
        static const Strings names = {"_exit",  "_Exit",     "quick_exit", "abort", "fork",   "dlmopen",
                                      "signal", "sigaction", "prctl",      "mmap",  "syscall"};
        const bool isFaked = std::find(names.begin(), names.end(), call.Arg<const char*>(1)) != names.end();
        return call.Arg<void*>(0) == RTLD_NEXT && isFaked ? reinterpret_cast<uint64_t>(Fake) : call.PassOn();
    }

    void SetUp() override
    {
        g_behind = {};
        ASSERT_NO_FATAL_FAILURE(RecordingTest::SetUp());
        ASSERT_TRUE(ZorvUmaCreateBuffers(&m_pInfo->m_umtData, m_logFd));
        m_pInfo->m_metaDataFd = MakeMemoryFile();
    }

    std::vector<SyscallRecord> Records() const
    {
        std::vector<SyscallRecord> records;
        const ZorvUmaBuffer* pBuffer = m_pThread->m_pUmtBuf;
        for (uint32_t offset = 0; pBuffer != nullptr && offset + 64 <= pBuffer->m_dataLen; offset += 64)
        {
            records.push_back(ReadAt<SyscallRecord>(pBuffer, offset));
        }
        return records;
    }

    void ExpectOneOther(uint64_t value)
    {
        ASSERT_EQ(Records().size(), 1u);
        const SyscallRecord record = Records()[0];
        EXPECT_EQ(record.m_hdr.m_recType, ZORV_UMT_RECORD_SYSCALL);
        EXPECT_EQ(record.m_hdr.m_subType, 6);
        EXPECT_EQ(record.m_hdr.m_flags, 0);
        EXPECT_EQ(record.m_funcVa, reinterpret_cast<uint64_t>(Fake));
        EXPECT_EQ(record.m_sysValue, value);
    }

    uint64_t m_now = 1000;
    Replace m_lookUp;
    Replace m_versioned;
    Replace m_clock;
};

} // namespace agent
