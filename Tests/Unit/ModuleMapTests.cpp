// The module map: which lines of a listing become records, and what a record holds.
#include "Support.h"

#include <cstring>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::Fails;
using faults::FailsOn;
using faults::NoMemory;
using faults::Replace;

namespace
{

struct __attribute__((packed)) MmapRecord
{
    uint16_t m_recType;
    uint16_t m_recSize;
    uint32_t m_pid;
    uint64_t m_startAddress;
    uint64_t m_endAddress;
    uint64_t m_time;
    uint16_t m_modulePathLen;
    uint8_t m_isCode;
    uint8_t m_isReserved1;
    uint32_t m_isReserved2;
};
static_assert(sizeof(MmapRecord) == 40);

struct Module
{
    MmapRecord m_record;
    std::string m_path; // with the zero behind it
};

class ModuleMap : public AgentTest
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(AgentTest::SetUp());
        m_fd = MakeMemoryFile();
    }

    void TearDown() override
    {
        close(m_fd);
        AgentTest::TearDown();
    }

    // Scans a listing of these lines.
    bool Scan(const Strings& lines, pid_t pid = 4242)
    {
        size_t next = 0;
        m_isClosed = false;
        Replace open("ZorvUmaFileOpen",
                     [&](const Call& call)
                     {
                         m_opened = call.Arg<const char*>(0);
                         EXPECT_STREQ(call.Arg<const char*>(1), "r");
                         return m_hasListing ? 0x7000 : 0;
                     });
        Replace read("ZorvUmaFileGets",
                     [&](const Call& call) -> uint64_t
                     {
                         EXPECT_EQ(call.Arg<int>(1), 5120);
                         EXPECT_EQ(call.Arg<uint64_t>(2), 0x7000u);
                         EXPECT_TRUE(IsAllZero(call.Arg<const char*>(0), 5120)) << "zeroed before each line";
                         if (next == lines.size())
                         {
                             return 0;
                         }
                         strcpy(call.Arg<char*>(0), lines[next++].c_str());
                         return call.m_words[0];
                     });
        Replace shut("ZorvUmaFileClose",
                     [&](const Call& call)
                     {
                         EXPECT_EQ(call.Arg<uint64_t>(0), 0x7000u);
                         m_isClosed = true;
                         return 0;
                     });
        Replace clock("ZorvUmaClockGetTime",
                      [&](const Call& call)
                      {
                          EXPECT_EQ(call.Arg<int>(0), CLOCK_MONOTONIC);
                          m_clockReads++;
                          *call.Arg<timespec*>(1) = {3, 7};
                          return m_hasClock ? 0 : -1;
                      });
        return fnWriteProcessMaps(pid, m_fd);
    }

    std::vector<Module> Modules() const
    {
        std::vector<Module> modules;
        const std::string bytes = ReadWhole(m_fd);
        for (size_t offset = 0; offset < bytes.size();)
        {
            Module module;
            memcpy(&module.m_record, bytes.data() + offset, sizeof module.m_record);
            module.m_path = bytes.substr(offset + 40, module.m_record.m_recSize - 40);
            offset += module.m_record.m_recSize;
            modules.push_back(module);
        }
        return modules;
    }

    Strings Paths() const
    {
        Strings paths;
        for (const Module& module : Modules())
        {
            paths.push_back(module.m_path.c_str());
        }
        return paths;
    }

    int m_fd = -1;
    bool m_hasListing = true;
    bool m_hasClock = true;
    bool m_isClosed = false;
    int m_clockReads = 0;
    std::string m_opened;
};

const char* const g_libm = "7f00a000-7f00b000 r-xp 00000000 08:01 1234       /usr/lib/libm.so.6\n";

TEST_F(ModuleMap, AnExecutableMappingWithAPathIsARecord)
{
    EXPECT_TRUE(Scan({g_libm}));
    EXPECT_EQ(m_opened, "/proc/4242/maps");
    EXPECT_TRUE(m_isClosed);
    ASSERT_EQ(Modules().size(), 1u);
    const Module module = Modules()[0];
    EXPECT_EQ(module.m_record.m_recType, 0);
    EXPECT_EQ(module.m_record.m_recSize, 59);
    EXPECT_EQ(module.m_record.m_pid, 4242u);
    EXPECT_EQ(module.m_record.m_startAddress, 0x7f00a000u);
    EXPECT_EQ(module.m_record.m_endAddress, 0x7f00b000u);
    EXPECT_EQ(module.m_record.m_time, 3'000'000'007u);
    EXPECT_EQ(module.m_record.m_modulePathLen, 18);
    EXPECT_EQ(module.m_record.m_isCode, 1);
    EXPECT_EQ(module.m_record.m_isReserved1, 0);
    EXPECT_EQ(module.m_record.m_isReserved2, 0u);
    EXPECT_EQ(module.m_path, std::string("/usr/lib/libm.so.6\0", 19));
}

TEST_F(ModuleMap, LinesWithoutTheLetterOrThePathOrHalfARangeAreSkipped)
{
    EXPECT_TRUE(Scan({"7f00a000-7f00b000 rw-p 00000000 08:01 1234 /usr/lib/libm.so.6\n",
                      "7f00a000-7f00b000 r-xp 00000000 08:01 1234\n",
                      "7f00a000-7f00b000 r-xp 00000000 08:01 1234 \n", "7f00a000 r-xp 00000000 08:01 1234 /a\n",
                      "7f00a000- r-xp 00000000 08:01 1234 /a\n", "- r-xp 00000000 08:01 1234 /a\n", "\n", "",
                      "7f00a000-7f00b000\n", "7f00a000-7f00b000 --x- 0 0 0 /kept"}));
    EXPECT_EQ(Paths(), Strings{"/kept"});
}

TEST_F(ModuleMap, OnlyTheFirstWordOfAPathIsRecorded)
{
    EXPECT_TRUE(
        Scan({"1000-2000 r-xp 0 08:01 5 /opt/my app/bin/tool\n", "1000-2000 r-xp 0 08:01 5 /a (deleted)\n",
              "1000-2000 r-xp 0 00:00 0                          [vdso]\n",
              "ffffffffff600000-ffffffffff601000 --xp 0 00:00 0 [vsyscall]\n"}));
    EXPECT_EQ(Paths(), (Strings{"/opt/my", "/a", "[vdso]", "[vsyscall]"}));
    EXPECT_EQ(Modules()[3].m_record.m_startAddress, 0xffffffffff600000u);
}

TEST_F(ModuleMap, ALineOfManyWordsIsHeld)
{
    std::string line = "1000-2000 r-xp 0 08:01 5 /first";
    for (int i = 0; i < 200; i++)
    {
        line += " w";
    }
    EXPECT_TRUE(Scan({line + "\n"}));
    EXPECT_EQ(Paths(), Strings{"/first"});
}

TEST_F(ModuleMap, EveryRecordOfAScanCarriesOneTime)
{
    EXPECT_TRUE(Scan({g_libm, g_libm, g_libm}));
    EXPECT_EQ(m_clockReads, 1);
    EXPECT_EQ(Modules().size(), 3u) << "duplicates are the reader's business";
}

TEST_F(ModuleMap, AClockThatFailsGivesTheTimeZero)
{
    m_hasClock = false;
    EXPECT_TRUE(Scan({g_libm}));
    EXPECT_EQ(Modules()[0].m_record.m_time, 0u);
}

TEST_F(ModuleMap, WithoutADescriptorNothingIsOpened)
{
    close(m_fd);
    m_fd = -1;
    EXPECT_FALSE(Scan({g_libm}));
    EXPECT_EQ(m_opened, "");
}

TEST_F(ModuleMap, AListingThatCannotBeOpenedWritesNothing)
{
    m_hasListing = false;
    EXPECT_FALSE(Scan({g_libm}));
    EXPECT_FALSE(m_isClosed);
    EXPECT_EQ(Log(), Strings{});
}

TEST_F(ModuleMap, WithoutMemoryForALineNothingIsWrittenAndNoFailureReported)
{
    NoMemory none(5120, 5121);
    EXPECT_TRUE(Scan({g_libm}));
    EXPECT_EQ(none.Refused(), 1);
    EXPECT_TRUE(m_isClosed);
    EXPECT_TRUE(Modules().empty());
}

TEST_F(ModuleMap, ARecordThatFailsMakesTheScanFailAndItGoesOn)
{
    Replace write("ZorvUmaWrite", FailsOn(1, static_cast<uint64_t>(-1), ENOSPC));
    EXPECT_FALSE(Scan({g_libm, "1000-2000 r-xp 0 08:01 5 /second\n"}));
    EXPECT_EQ(write.Calls(), 2);
    EXPECT_EQ(Paths(), Strings{"/second"});
    EXPECT_EQ(Log(), Strings{});
}

TEST_F(ModuleMap, ARecordIsOneWriteAndTakesTheGivenLengthOfThePath)
{
    Replace write("ZorvUmaWrite",
                  [&](const Call& call)
                  {
                      EXPECT_EQ(call.Arg<int>(0), m_fd);
                      EXPECT_EQ(call.Arg<size_t>(2), 44u);
                      return call.PassOn();
                  });
    EXPECT_TRUE(fnWriteMmapRecord(9, 1, 2, m_fd, "/lib/long", 3, 77));
    EXPECT_EQ(write.Calls(), 1);
    EXPECT_EQ(Modules()[0].m_path, std::string("/li\0", 4));
    EXPECT_EQ(Modules()[0].m_record.m_time, 9u);
    EXPECT_EQ(Modules()[0].m_record.m_pid, 77u);
}

TEST_F(ModuleMap, ARecordFailsWithoutPathDescriptorOrMemoryAndOnAShortWrite)
{
    Replace write("ZorvUmaWrite", Fails(10));
    EXPECT_FALSE(fnWriteMmapRecord(9, 1, 2, m_fd, nullptr, 3, 77));
    EXPECT_FALSE(fnWriteMmapRecord(9, 1, 2, -1, "/li", 3, 77));
    {
        NoMemory none(44, 45);
        EXPECT_FALSE(fnWriteMmapRecord(9, 1, 2, m_fd, "/li", 3, 77));
        EXPECT_EQ(none.Refused(), 1);
    }
    EXPECT_EQ(write.Calls(), 0);
    EXPECT_FALSE(fnWriteMmapRecord(9, 1, 2, m_fd, "/li", 3, 77));
    EXPECT_EQ(write.Calls(), 1);
}

TEST_F(ModuleMap, AnEmptyPathMayBeWrittenByARecordOfItsOwn)
{
    EXPECT_TRUE(fnWriteMmapRecord(9, 1, 2, m_fd, "", 0, 77));
    EXPECT_EQ(Modules()[0].m_record.m_recSize, 41);
}

} // namespace
