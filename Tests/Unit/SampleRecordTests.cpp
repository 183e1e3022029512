// The counter metadata record, written straight to the sample file.
#include "Support.h"

#include <sys/syscall.h>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::CallLog;
using faults::Fails;
using faults::FailsOn;
using faults::NoMemory;
using faults::Replace;

namespace
{

constexpr uint64_t MINUS_ONE = ~uint64_t{0};

class PmcMetadata : public RecordingTest
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(RecordingTest::SetUp());
        ZorvUmsConfig& sampling = m_pInfo->m_umsConfig;
        sampling.m_configFlags = ZORV_UMS_PMC;
        sampling.m_nbrEvents = 2;
        sampling.m_encodedEvents[0] = 0x1111222233334444;
        sampling.m_encodedEvents[1] = 0x5555666677778888;
        sampling.m_pmcEvents[0] = sampling.m_pmcEvents[1] = 9;
    }

    std::string Written()
    {
        return ReadWhole(m_pInfo->m_umsData.m_fd);
    }
};

TEST_F(PmcMetadata, NamesTheEncodedEventsInTheirOrder)
{
    CallLog writes{"ZorvUmaWrite"};
    EXPECT_TRUE(ZorvUmsWritePcmMetadata(m_pInfo));
    ASSERT_EQ(writes.Calls().size(), 2u) << "header, then body";
    EXPECT_EQ(writes.Calls()[0].m_words[2], 24u);
    EXPECT_EQ(writes.Calls()[1].m_words[2], 24u);
    const std::string bytes = Written();
    ASSERT_EQ(bytes.size(), 48u);
    SampleHeader header;
    memcpy(&header, bytes.data(), sizeof header);
    EXPECT_EQ(header.m_pid, getpid());
    EXPECT_EQ(header.m_tid, syscall(SYS_gettid));
    EXPECT_EQ(header.m_recType, ZORV_UMS_RECORD_METADATA);
    EXPECT_EQ(header.m_recSize, 48);
    EXPECT_EQ(header.m_coreId, 0);
    EXPECT_EQ(header.m_flags, ZORV_UMS_PMC);
    EXPECT_EQ(header.m_startTime, 0u);
    struct
    {
        uint32_t m_numEvents;
        uint32_t m_reserved;
        uint64_t m_eventIds[2];
    } body;
    static_assert(sizeof body == 24);
    memcpy(&body, bytes.data() + sizeof header, sizeof body);
    EXPECT_EQ(body.m_numEvents, 2u);
    EXPECT_EQ(body.m_reserved, 0u);
    EXPECT_EQ(body.m_eventIds[0], 0x1111222233334444u);
    EXPECT_EQ(body.m_eventIds[1], 0x5555666677778888u);
}

TEST_F(PmcMetadata, SixtyFourEventsFit)
{
    m_pInfo->m_umsConfig.m_nbrEvents = 64;
    m_pInfo->m_umsConfig.m_encodedEvents[63] = 63;
    EXPECT_TRUE(ZorvUmsWritePcmMetadata(m_pInfo));
    EXPECT_EQ(Written().size(), 32u + 8 * 64);
}

TEST_F(PmcMetadata, IsNotWrittenWithoutEventsSamplingOrCollection)
{
    m_pInfo->m_umsConfig.m_nbrEvents = 0;
    EXPECT_FALSE(ZorvUmsWritePcmMetadata(m_pInfo));
    m_pInfo->m_umsConfig.m_nbrEvents = 2;
    m_pInfo->m_umsConfig.m_enable = false;
    EXPECT_FALSE(ZorvUmsWritePcmMetadata(m_pInfo));
    m_pInfo->m_umsConfig.m_enable = true;
    m_pThread->m_stopCollection = true;
    EXPECT_FALSE(ZorvUmsWritePcmMetadata(m_pInfo));
    EXPECT_FALSE(ZorvUmsWritePcmMetadata(nullptr));
    EXPECT_EQ(Written(), "");
    EXPECT_EQ(Log(), Strings{});
}

TEST_F(PmcMetadata, WithoutMemoryFailsSilently)
{
    NoMemory noMemory;
    EXPECT_FALSE(ZorvUmsWritePcmMetadata(m_pInfo));
    EXPECT_EQ(noMemory.Refused(), 1);
    EXPECT_EQ(Written(), "");
    EXPECT_EQ(Log(), Strings{});
}

TEST_F(PmcMetadata, WithoutAFileIsLogged)
{
    m_pInfo->m_umsData.m_fd = -1;
    EXPECT_FALSE(ZorvUmsWritePcmMetadata(m_pInfo));
    EXPECT_EQ(Log(), Strings{"ERROR Invalid file descriptor for sampling data."});
}

TEST_F(PmcMetadata, AShortHeaderIsLoggedAndTheBodyLeftOut)
{
    Replace write("ZorvUmaWrite", FailsOn(1, 23));
    EXPECT_FALSE(ZorvUmsWritePcmMetadata(m_pInfo));
    EXPECT_EQ(Written(), "");
    EXPECT_EQ(Log(), Strings{"ERROR Failed to write pmc meta data header."});
}

TEST_F(PmcMetadata, AShortBodyIsLogged)
{
    Replace write("ZorvUmaWrite", FailsOn(2, MINUS_ONE, ENOSPC));
    EXPECT_FALSE(ZorvUmsWritePcmMetadata(m_pInfo));
    EXPECT_EQ(Log(), Strings{"ERROR Failed to write pmc meta data."});
}

TEST_F(PmcMetadata, ItsBodyIsFreedOnEveryPath)
{
    for (const long failing : {0, 1, 2})
    {
        Replace write("ZorvUmaWrite",
                      [=, this](const Call& call)
                      {
                          const bool isData = call.Arg<int>(0) == m_pInfo->m_umsData.m_fd;
                          return isData && call.m_number == failing ? MINUS_ONE : call.PassOn();
                      });
        CallLog frees{"ZorvUmaFree"};
        ZorvUmsWritePcmMetadata(m_pInfo);
        EXPECT_EQ(frees.Calls().size(), 1u) << failing;
    }
}

} // namespace
