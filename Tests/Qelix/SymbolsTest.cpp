// Names for addresses: from an ELF file that the build makes of SymbolSubject.cpp, and from module maps made by
// hand.
#include "FileBytes.h"
#include "SymbolSupport.h"
#include "Symbols/DataSymbols.h"

#include <fmt/format.h>
#include <sys/stat.h>

using namespace qelix;

TEST_F(SymbolsTest, AFunctionGoesByItsNameFromItsFirstByteOn)
{
    const uint64_t plain = BASE + AddressOf(m_subject, "SubjectPlain");
    EXPECT_EQ(CallName(&m_process, plain, 1), "SubjectPlain");
    EXPECT_EQ(CallName(&m_process, plain + 1, 1), "SubjectPlain");
}

TEST_F(SymbolsTest, OfTheNamesOfOneAddressThePlainestIsTaken)
{
    EXPECT_EQ(CallName(&m_process, BASE + AddressOf(m_subject, "__subject_alias64"), 1), "subject_alias");
}

TEST_F(SymbolsTest, NamesOfCxxAreDemangled)
{
    EXPECT_EQ(CallName(&m_process, BASE + AddressOf(m_subject, "_ZN7subject7OverlayEiPKc"), 1),
              "subject::Overlay(int, char const*)");
    EXPECT_EQ(Demangled("_Z"), "_Z");
    EXPECT_EQ(Demangled("plain"), "plain");
}

TEST_F(SymbolsTest, InlinedFunctionsStandInsideTheOneThatHoldsThem)
{
    // The subject marks the address of its inlined loop with a label.
    const std::vector<std::string> names = NamesAt(BASE + AddressOf(m_subject, "subject_inlined_here"));
    // What no other file can link to has no parameters in its name.
    EXPECT_EQ(names, (std::vector<std::string>{"subject::Inner(int)", "subject::Outer", "SubjectInlining"}));
}

TEST_F(SymbolsTest, AnAddressWithoutASymbolIsModuleAndOffset)
{
    const ModuleMap map = MapOf({{0x1000, 0x3000, 1, "/nonexistent/lib/libgone.so.1"}});
    m_process = SymbolsOf(&m_symbolizer, map);
    EXPECT_EQ(CallName(&m_process, 0x1234, 1), "libgone.so.1+0x234");
    EXPECT_EQ(NamesAt(0x1234), std::vector<std::string>{"libgone.so.1+0x234"});
}

TEST_F(SymbolsTest, AStrippedFileHasTheNamesThatItExports)
{
    Use(SYMBOL_SUBJECT_STRIPPED);
    const uint64_t plain = BASE + AddressOf(m_subject, "SubjectPlain");
    EXPECT_EQ(CallName(&m_process, plain, 1), "SubjectPlain");
    const uint64_t hidden = AddressOf(m_subject, "_ZL13SubjectHiddeni");
    EXPECT_EQ(CallName(&m_process, BASE + hidden, 1), fmt::format("libSymbolSubjectStripped.so+{:#x}", hidden));
}

TEST_F(SymbolsTest, AFunctionOfAStrippedFileHasOneNameFromEndToEnd)
{
    Use(SYMBOL_SUBJECT_STRIPPED);
    const uint64_t hidden = AddressOf(m_subject, "_ZL13SubjectHiddeni");
    const std::string name = fmt::format("libSymbolSubjectStripped.so+{:#x}", hidden);
    EXPECT_EQ(NamesAt(BASE + hidden + 1), std::vector<std::string>{name});
    EXPECT_EQ(CallName(&m_process, BASE + hidden + 3, 1), name) << "in the middle of it";
    const uint64_t before = AddressOf(m_subject, "subject_signal_return");
    EXPECT_EQ(CallName(&m_process, BASE + before + 2, 1),
              fmt::format("libSymbolSubjectStripped.so+{:#x}", before + 2))
        << "assembly that no table describes stands for itself";
}

TEST_F(SymbolsTest, WhatTheStrippedFileLacksComesFromTheSeparateDebugFile)
{
    // The same file, with a link to a debug file that lies in ".debug" beside it.
    Use(SYMBOL_SUBJECT_LINKED);
    EXPECT_EQ(CallName(&m_process, BASE + AddressOf(m_subject, "_ZL13SubjectHiddeni"), 1),
              "SubjectHidden(int)");
    EXPECT_EQ(NamesAt(BASE + AddressOf(m_subject, "subject_inlined_here")).front(), "subject::Inner(int)");
}

TEST_F(SymbolsTest, AnAddressInNoMappingHasNoName)
{
    EXPECT_EQ(CallName(&m_process, 0x10, 1), "0x10");
    EXPECT_EQ(NamesAt(0x10), std::vector<std::string>{"[no module]"});
}

TEST(DataSymbols, APipeIsNotWaitedFor)
{
    const TestFolder folder;
    const std::string pipe = folder.m_path + "/pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    DataFiles files;
    EXPECT_TRUE(DataImagesOf(&files, MapOf({{0x1000, 0x2000, 1, pipe}})).empty());
}

TEST(ModuleMap, AMapThatIsListedAgainIsNotAChange)
{
    const ModuleMap map =
        MapOf({{0x1000, 0x2000, 1, "/a"}, {0x5000, 0x6000, 1, "/b"}, {0x1000, 0x2000, 9, "/a"}});
    EXPECT_TRUE(map.m_isStable);
    ASSERT_EQ(map.m_mappings.size(), 2u);
    EXPECT_EQ(FindMapping(map, 0x1fff, 5)->m_path, "/a");
    EXPECT_EQ(FindMapping(map, 0x2000, 5), nullptr);
    EXPECT_EQ(FindMapping(map, 0xfff, 5), nullptr);
    EXPECT_EQ(FindMapping(map, 0x5000, 0)->m_path, "/b");
}

TEST(ModuleMap, TwoFilesAtOnePlaceAreToldApartByTime)
{
    const ModuleMap map = MapOf({{0x1000, 0x3000, 10, "/first"}, {0x2000, 0x4000, 20, "/second"}});
    EXPECT_FALSE(map.m_isStable);
    EXPECT_EQ(FindMapping(map, 0x2800, 15)->m_path, "/first");
    EXPECT_EQ(FindMapping(map, 0x2800, 25)->m_path, "/second");
    EXPECT_EQ(FindMapping(map, 0x2800, 5)->m_path, "/first") << "seen only later, and nothing was seen before";
    EXPECT_EQ(FindMapping(map, 0x3800, 5)->m_path, "/second");
}

TEST(ModuleMap, NeighboursOfOneFileAreOneMapping)
{
    const ModuleMap map =
        MapOf({{0x1000, 0x2000, 1, "/a"}, {0x2000, 0x3000, 1, "/a"}, {0x3000, 0x4000, 1, "/b"}});
    ASSERT_EQ(map.m_mappings.size(), 2u);
    EXPECT_EQ(map.m_mappings[0].m_end, 0x3000u);
}

TEST(ModuleMap, IsReadFromAMetadataFileUpToItsDamage)
{
    const TestFolder folder;
    FileBytes file;
    file.MetadataHeader().Mmap(0x1000, 0x2000, "/lib/a.so").U16(0).U16(99);
    const ModuleMap map = ReadModuleMap(folder.Write("metadata_host_42.meta", file));
    ASSERT_EQ(map.m_mappings.size(), 1u);
    EXPECT_EQ(map.m_mappings[0].m_path, "/lib/a.so");
    EXPECT_TRUE(map.m_damage.has_value());
    EXPECT_TRUE(ReadModuleMap("").m_mappings.empty());
}

// ---- hidden frames ---------------------------------------------------------------------------------------

namespace
{

// An agent that is no file, and the subject, which has code like that of libc's return from a signal handler.
struct HiddenFramesTest : SymbolsTest
{
    static constexpr uint64_t AGENT = 0x1000;
    uint64_t m_signalReturn = 0;
    uint64_t m_plain = 0;

    void SetUp() override
    {
        SymbolsTest::SetUp();
        ModuleMap map = m_process.m_map;
        AddMapping(&map, {AGENT, AGENT + 0x1000, 1, "/x/libZorUserModeTracingAgent.so"});
        SettleMap(&map);
        m_process = SymbolsOf(&m_symbolizer, map);
        m_signalReturn = BASE + AddressOf(m_subject, "subject_signal_return");
        m_plain = BASE + AddressOf(m_subject, "SubjectPlain");
    }
};

} // namespace

TEST_F(HiddenFramesTest, TheHandlerAndTheSignalsDeliveryAreSkipped)
{
    const std::vector<uint64_t> stack = {AGENT + 1, AGENT + 2, AGENT + 3, m_signalReturn, m_plain, m_plain + 2};
    EXPECT_EQ(FirstOwnFrame(&m_process, stack, 1), 4u);
    EXPECT_EQ(FrameAddress(&m_process, stack, 4, 4, 1), m_plain) << "what was interrupted stands there exactly";
    EXPECT_EQ(FrameAddress(&m_process, stack, 5, 4, 1), m_plain + 1) << "a return address lies behind the call";
    EXPECT_EQ(FrameAddress(&m_process, stack, 3, 4, 1), m_signalReturn);
}

TEST_F(HiddenFramesTest, AgentFramesThatTheProgramCalledStay)
{
    const std::vector<uint64_t> stack = {AGENT + 1, m_signalReturn, AGENT + 9, m_plain};
    EXPECT_EQ(FirstOwnFrame(&m_process, stack, 1), 2u);
}

TEST_F(HiddenFramesTest, AStackWithoutAHandlerLosesNothing)
{
    EXPECT_EQ(FirstOwnFrame(&m_process, {m_plain, m_plain}, 1), 0u);
    EXPECT_EQ(FirstOwnFrame(&m_process, {m_signalReturn, m_plain}, 1), 0u);
    EXPECT_EQ(FirstOwnFrame(&m_process, {AGENT, AGENT + 1}, 1), 2u);
    EXPECT_EQ(FirstOwnFrame(&m_process, {}, 1), 0u);
}
