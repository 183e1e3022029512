// Whether a file is still the one that ran, and what is said of a module whose addresses were looked up.
#include "FileBytes.h"
#include "SymbolSupport.h"
#include "Symbols/ModuleFacts.h"

#include <filesystem>
#include <fstream>
#include <sys/auxv.h>

using namespace qelix;

namespace
{

std::string ThisBoot()
{
    std::string id;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> id;
    return id;
}

struct RecordedFilesTest : SymbolsTest
{
    RecordedFiles& m_recorded = m_symbolizer.m_recorded;

    ModuleFacts FactsAfterLookUp()
    {
        NamesAt(BASE + AddressOf(SYMBOL_SUBJECT, "SubjectPlain"));
        return ModulesOf(m_symbolizer).at(0);
    }

    // What lies so far into the kernel's code of this process.
    std::string NameInVdso(uint64_t offset)
    {
        m_process = SymbolsOf(&m_symbolizer, MapOf({{BASE, BASE + 0x2000, 1, "[vdso]"}}));
        return CallName(&m_process, BASE + offset, 1);
    }
};

// Where the kernel's code has this function, read by the dynamic linker's own means: none is exported to C, so
// the symbol is taken from the library under test and its code from memory.
// Where the kernel's code has this function.
uint64_t VdsoOffset(const std::string& name)
{
    const auto pFile = OpenSymbolFile(ZORV_VDSO);
    for (const Symbol& symbol : pFile->m_symbols)
    {
        if (symbol.m_name == name)
        {
            return symbol.m_address;
        }
    }
    return 0;
}

} // namespace

TEST_F(RecordedFilesTest, TheBuildThatRanHasNothingToBeSaid)
{
    m_recorded.m_buildIds[m_subject] = OpenSymbolFile(m_subject)->m_buildId;
    m_recorded.m_startTime = 1; // long before the file was written: the build-id tells better
    const ModuleFacts facts = FactsAfterLookUp();
    EXPECT_EQ(facts.m_match, ZORV_FILE_SAME);
    EXPECT_EQ(facts.m_buildId, facts.m_recordedBuildId);
    EXPECT_EQ(facts.m_buildId.size(), 40u);
    EXPECT_EQ((std::vector<uint64_t>{facts.m_addresses, facts.m_named, facts.m_withLine}),
              (std::vector<uint64_t>{1, 1, 1}));
    EXPECT_TRUE(RemarksOn(facts).empty());
}

TEST_F(RecordedFilesTest, AnotherBuildIsNamedAndStillShown)
{
    m_recorded.m_buildIds[m_subject] = "0011223344";
    const ModuleFacts facts = FactsAfterLookUp();
    EXPECT_EQ(facts.m_match, ZORV_FILE_CHANGED);
    EXPECT_EQ(facts.m_named, 1u);
    EXPECT_NE(RemarksOn(facts).at(0).find("another build"), std::string::npos);
}

TEST_F(RecordedFilesTest, WithoutABuildIdTheTimeOfTheFileTells)
{
    m_recorded.m_startTime = 1;
    EXPECT_EQ(FactsAfterLookUp().m_match, ZORV_FILE_NEWER);
    EXPECT_EQ(MatchOf(*OpenSymbolFile(m_subject), {{}, "", int64_t{1} << 40}), ZORV_FILE_SAME);
    EXPECT_EQ(MatchOf(*OpenSymbolFile(m_subject), {}), ZORV_FILE_SAME);
}

TEST_F(RecordedFilesTest, FilesThatAreGoneOrNoCode)
{
    const TestFolder folder;
    EXPECT_EQ(MatchOf(*OpenSymbolFile("/nonexistent/lib.so"), {}), ZORV_FILE_MISSING);
    EXPECT_EQ(MatchOf(*OpenSymbolFile(folder.Write("text", std::string("no code"))), {}), ZORV_FILE_NOT_CODE);
    EXPECT_NE(MatchText(ZORV_FILE_MISSING), nullptr);
}

TEST_F(RecordedFilesTest, AStrippedFileSaysWhereItsNamesWouldBeFound)
{
    Use(SYMBOL_SUBJECT_STRIPPED);
    NamesAt(BASE + AddressOf(SYMBOL_SUBJECT, "_ZL13SubjectHiddeni"));
    const ModuleFacts facts = FactsAfterLookUp();
    EXPECT_EQ(facts.m_addresses, 2u);
    EXPECT_EQ(facts.m_named, 1u);
    const std::string remark = RemarksOn(facts).at(0);
    EXPECT_NE(remark.find("only the names that it exports"), std::string::npos) << remark;
    EXPECT_NE(remark.find(".build-id/" + facts.m_buildId.substr(0, 2) + "/" + facts.m_buildId.substr(2)),
              std::string::npos)
        << remark;
}

TEST_F(RecordedFilesTest, TheKernelsCodeHasNamesOnTheBootThatRan)
{
    const uint64_t offset = VdsoOffset("clock_gettime");
    ASSERT_NE(offset, 0u) << "AT_SYSINFO_EHDR is " << getauxval(AT_SYSINFO_EHDR);
    m_recorded.m_bootId = ThisBoot();
    EXPECT_EQ(NameInVdso(offset), "clock_gettime");
}

TEST_F(RecordedFilesTest, TheKernelsCodeOfAnotherBootHasNone)
{
    m_recorded.m_bootId = "another";
    EXPECT_EQ(NameInVdso(0x800), "[vdso]+0x800");
    EXPECT_EQ(ModulesOf(m_symbolizer).at(0).m_match, ZORV_FILE_NOT_HERE);
}

TEST_F(RecordedFilesTest, TheKernelsCodeIsKnownByItsBuildIdToo)
{
    m_recorded.m_bootId = "another";
    m_recorded.m_buildIds["[vdso]"] = OpenSymbolFile(ZORV_VDSO)->m_buildId;
    EXPECT_EQ(NameInVdso(VdsoOffset("clock_gettime")), "clock_gettime");
}
