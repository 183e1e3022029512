// Every kind of damage: named with its byte offset, and all that stands before it handed out.
#include "FileBytes.h"
#include "Reader/RecordFile.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace qelix;

namespace
{

struct DamageCase
{
    const char* m_pName;
    const char* m_pFile;
    FileBytes m_bytes;
    std::size_t m_recordsBefore;
    uint64_t m_offset;
    DamageKind m_kind;
    const char* m_pReason; // part of it
};

FileBytes Trace()
{
    return FileBytes().StreamHeader().Pthread(1, 100, 200);
}

FileBytes Samples()
{
    return FileBytes().StreamHeader().SampleRecordHeader(5, 32, 0, 7).U64(0xF00);
}

FileBytes Metadata()
{
    return FileBytes().MetadataHeader().Mmap(1, 2, "/a");
}

// Where the second record begins.
constexpr uint64_t TRACE_2 = 24 + 64;
constexpr uint64_t SAMPLE_2 = 24 + 32;
constexpr uint64_t METADATA_2 = 16 + 43;

const DamageCase g_cases[] = {
    {"magic", "a.umt", FileBytes().U64(NEVER - 1).U32(42).U32(0).U16(2).U16(0).U32(0), 0, 0,
     ZORV_DAMAGE_UNKNOWN_FILE, "does not begin as a trace file"},
    {"text file", "a.meta", FileBytes().Text("#!/bin/sh\nexit 0\n", 20), 0, 0, ZORV_DAMAGE_UNKNOWN_FILE,
     "does not begin as a metadata file"},
    {"older version", "a.umt", FileBytes().U64(NEVER).U32(42).U32(0).U16(1).U16(0).U32(0), 0, 0,
     ZORV_DAMAGE_VERSION, "file version 1"},
    {"later version", "a.ums", FileBytes().U64(NEVER).U32(42).U32(0).U16(3).U16(0).U32(0), 0, 0,
     ZORV_DAMAGE_VERSION, "file version 3"},
    {"metadata version", "a.meta", FileBytes().U64(NEVER).U32(42).U16(0).U16(2), 0, 0, ZORV_DAMAGE_VERSION,
     "file version 2"},
    {"process id 0", "a.umt", FileBytes().StreamHeader(0), 0, 0, ZORV_DAMAGE_CORRUPT, "0 is no process id"},
    {"huge process id", "a.meta", FileBytes().MetadataHeader(0xFFFFFFFF), 0, 0, ZORV_DAMAGE_CORRUPT,
     "4294967295 is no process id"},
    {"reserved header bytes", "a.umt", FileBytes().U64(NEVER).U32(42).U32(0).U16(2).U16(1).U32(0), 0, 0,
     ZORV_DAMAGE_CORRUPT, "reserved"},

    {"unknown trace type", "a.umt", Trace().TraceRecordHeader(8, 64, 0, 1, 2).Zeroes(32), 1, TRACE_2,
     ZORV_DAMAGE_CORRUPT, "unknown record type 8"},
    {"size 0", "a.umt", Trace().TraceRecordHeader(1, 0, 1, 1, 2).Zeroes(32), 1, TRACE_2, ZORV_DAMAGE_CORRUPT,
     "of 0 bytes"},
    {"size below the header", "a.umt", Trace().TraceRecordHeader(7, 31, 0, 1, 1).Zeroes(8), 1, TRACE_2,
     ZORV_DAMAGE_CORRUPT, "of 31 bytes"},
    {"unaligned size", "a.umt", Trace().TraceRecordHeader(1, 67, 1, 1, 2).Zeroes(35), 1, TRACE_2,
     ZORV_DAMAGE_CORRUPT, "call-stack entries"},
    {"huge size", "a.umt", Trace().TraceRecordHeader(1, 65535, 1, 1, 2).Zeroes(32), 1, TRACE_2,
     ZORV_DAMAGE_TRUNCATED, "64 of the 65535 bytes"},
    {"stack longer than the record", "a.umt",
     Trace().TraceRecordHeader(1, 64, 1, 1, 2).U64(1).U64(2).U64(0).U32(0).U16(65535).U16(0), 1, TRACE_2,
     ZORV_DAMAGE_CORRUPT, "65535 call-stack entries"},
    {"pthread sub-type 0", "a.umt", Trace().Pthread(0, 1, 2), 1, TRACE_2, ZORV_DAMAGE_CORRUPT, "no sub-type 0"},
    {"pthread sub-type 17", "a.umt", Trace().Pthread(17, 1, 2), 1, TRACE_2, ZORV_DAMAGE_CORRUPT,
     "no sub-type 17"},
    {"syscall class 7", "a.umt", Trace().Syscall(7, 1, 2), 1, TRACE_2, ZORV_DAMAGE_CORRUPT, "no sub-type 7"},
    {"flags of a pthread record", "a.umt", Trace().TraceRecordHeader(1, 64, 1, 1, 2, 43, 1).Zeroes(32), 1,
     TRACE_2, ZORV_DAMAGE_CORRUPT, "flags 0x1"},
    {"flags of a system call", "a.umt", Trace().Syscall(1, 1, 2, 2), 1, TRACE_2, ZORV_DAMAGE_CORRUPT,
     "flags 0x2"},
    {"end before start", "a.umt", Trace().Pthread(1, 500, 499), 1, TRACE_2, ZORV_DAMAGE_CORRUPT,
     "before it starts"},
    {"thread id 0", "a.umt", Trace().Pthread(1, 1, 2, 3, 0), 1, TRACE_2, ZORV_DAMAGE_CORRUPT,
     "0 is no thread id"},
    {"call of thread -1", "a.umt", Trace().Pthread(1, 1, 2, 3, -1), 1, TRACE_2, ZORV_DAMAGE_CORRUPT,
     "-1 is no thread id"},
    {"proc record too long", "a.umt", Trace().TraceRecordHeader(4, 88, 0, 1, 0).Zeroes(56), 1, TRACE_2,
     ZORV_DAMAGE_CORRUPT, "88 bytes where 80"},
    {"proc record with an end", "a.umt", Trace().TraceRecordHeader(4, 80, 0, 1, 2).Zeroes(48), 1, TRACE_2,
     ZORV_DAMAGE_CORRUPT, "end time"},
    {"proc record with a sub-type", "a.umt", Trace().TraceRecordHeader(4, 80, 1, 1, 0).Zeroes(48), 1, TRACE_2,
     ZORV_DAMAGE_CORRUPT, "sub-type 1"},
    {"thread end with two times", "a.umt", Trace().TraceRecordHeader(7, 40, 0, 1, 2).U64(1), 1, TRACE_2,
     ZORV_DAMAGE_CORRUPT, "start and end differ"},

    {"unknown sample type", "a.ums", Samples().SampleRecordHeader(6, 24, 0, 1), 1, SAMPLE_2,
     ZORV_DAMAGE_CORRUPT, "unknown record type 6"},
    {"sample without frames", "a.ums", Samples().SampleRecordHeader(3, 40, 1, 1).U64(0).U32(0).U32(0), 1,
     SAMPLE_2, ZORV_DAMAGE_CORRUPT, "0 stack entries"},
    {"sample with 4 billion frames", "a.ums",
     Samples().SampleRecordHeader(3, 48, 1, 1).U64(0).U32(0).U32(0xFFFFFFFF).U64(1), 1, SAMPLE_2,
     ZORV_DAMAGE_CORRUPT, "4294967295 stack entries"},
    {"sample longer than its stack", "a.ums",
     Samples().SampleRecordHeader(3, 56, 1, 1).U64(0).U32(0).U32(1).U64(1).U64(2), 1, SAMPLE_2,
     ZORV_DAMAGE_CORRUPT, "stack ends after 48"},
    {"sample without room for its counters", "a.ums",
     Samples().SampleRecordHeader(3, 48, 3, 1).U64(0).U32(0).U32(1).U64(1), 1, SAMPLE_2, ZORV_DAMAGE_CORRUPT,
     "1 stack entries"},
    {"sample with 4 billion counters", "a.ums",
     Samples().SampleRecordHeader(3, 56, 3, 1).U64(0).U32(0).U32(1).U64(1).U32(0xFFFFFFFF).U32(0), 1, SAMPLE_2,
     ZORV_DAMAGE_CORRUPT, "4294967295 counters"},
    {"sample flags", "a.ums", Samples().SampleRecordHeader(3, 48, 4, 1).U64(0).U32(0).U32(1).U64(1), 1,
     SAMPLE_2, ZORV_DAMAGE_CORRUPT, "flags 0x4"},
    {"sample thread id", "a.ums", Samples().SampleRecordHeader(5, 32, 0, 1, -5).U64(0), 1, SAMPLE_2,
     ZORV_DAMAGE_CORRUPT, "-5 is no thread id"},
    {"events that do not fit", "a.ums", Samples().SampleRecordHeader(4, 40, 2, 0).U32(2).U32(0).U64(1), 1,
     SAMPLE_2, ZORV_DAMAGE_CORRUPT, "lists 2 events"},

    {"unknown metadata type", "a.meta", Metadata().U16(4).U16(8).U32(42), 1, METADATA_2, ZORV_DAMAGE_CORRUPT,
     "unknown record type 4"},
    {"metadata size 0", "a.meta", Metadata().Zeroes(41), 1, METADATA_2, ZORV_DAMAGE_CORRUPT, "of 0 bytes"},
    {"path longer than its record", "a.meta",
     Metadata().U16(0).U16(43).U32(42).U64(1).U64(2).U64(3).U16(60000).U8(1).U8(0).U32(0).Zeroes(3), 1,
     METADATA_2, ZORV_DAMAGE_CORRUPT, "its path has 60000"},
    {"path without an end", "a.meta",
     Metadata().U16(0).U16(43).U32(42).U64(1).U64(2).U64(3).U16(2).U8(1).U8(0).U32(0).Text("abc", 3), 1,
     METADATA_2, ZORV_DAMAGE_CORRUPT, "does not end"},
    {"path that ends early", "a.meta",
     Metadata().U16(0).U16(43).U32(42).U64(1).U64(2).U64(3).U16(2).U8(1).U8(0).U32(0).Text("a", 3), 1,
     METADATA_2, ZORV_DAMAGE_CORRUPT, "does not end"},
    {"mapping turned round", "a.meta", Metadata().Mmap(0x2000, 0x1000, "/a"), 1, METADATA_2,
     ZORV_DAMAGE_CORRUPT, "before it starts"},
    {"code flag 2", "a.meta",
     Metadata().U16(0).U16(41).U32(42).U64(1).U64(2).U64(3).U16(0).U8(2).U8(0).U32(0).U8(0), 1, METADATA_2,
     ZORV_DAMAGE_CORRUPT, "code flag of a mapping is 2"},
};

struct DamagedFileTest : testing::TestWithParam<DamageCase>
{
};

std::string CaseName(const testing::TestParamInfo<DamageCase>& info)
{
    std::string name = info.param.m_pName;
    for (char& c : name)
    {
        c = isalnum(static_cast<unsigned char>(c)) ? c : '_';
    }
    return name;
}

std::size_t CountRecords(RecordFile* pFile)
{
    std::size_t count = 0;
    Record record;
    while (NextRecord(pFile, &record))
    {
        ++count;
    }
    return count;
}

void PrintTo(const DamageCase& damageCase, std::ostream* pOut)
{
    *pOut << damageCase.m_pName;
}

} // namespace

TEST_P(DamagedFileTest, IsNamedAndWhatPrecedesItIsRead)
{
    const DamageCase& expected = GetParam();
    const TestFolder folder;
    const std::string path = folder.Write(expected.m_pFile, expected.m_bytes);
    const auto pFile = OpenRecordFile(path);
    EXPECT_EQ(CountRecords(pFile.get()), expected.m_recordsBefore);
    ASSERT_TRUE(pFile->m_damage);
    EXPECT_EQ(pFile->m_damage->m_offset, expected.m_offset);
    EXPECT_EQ(pFile->m_damage->m_kind, expected.m_kind);
    EXPECT_NE(pFile->m_damage->m_reason.find(expected.m_pReason), std::string::npos)
        << pFile->m_damage->m_reason;
    const std::string message = DamageMessage(*pFile->m_damage);
    EXPECT_NE(message.find(path), std::string::npos);
    EXPECT_NE(message.find("byte offset " + std::to_string(expected.m_offset)), std::string::npos);
    EXPECT_NE(message.find(DamageRemedy(expected.m_kind)), std::string::npos);
    Record record;
    EXPECT_FALSE(NextRecord(pFile.get(), &record)) << "the reading has ended for good";
}

INSTANTIATE_TEST_SUITE_P(Reader, DamagedFileTest, testing::ValuesIn(g_cases), CaseName);

namespace
{

struct CutCase
{
    const char* m_pFile;
    FileBytes m_bytes;
    std::vector<std::size_t> m_ends; // of the header and of each record
};

// Cut after every byte: a cut between two records is a shorter valid file, any other one is damage at the
// start of what was cut.
void CheckEveryCut(const CutCase& whole)
{
    const TestFolder folder;
    for (std::size_t size = 1; size <= whole.m_bytes.m_bytes.size(); ++size)
    {
        const std::string path = folder.Write(whole.m_pFile, whole.m_bytes.m_bytes.substr(0, size));
        const auto pFile = OpenRecordFile(path);
        const std::size_t records = CountRecords(pFile.get());
        std::size_t wholeParts = 0;
        std::size_t lastEnd = 0;
        for (const std::size_t end : whole.m_ends)
        {
            wholeParts += end <= size ? 1 : 0;
            lastEnd = end <= size ? end : lastEnd;
        }
        EXPECT_EQ(records, wholeParts == 0 ? 0 : wholeParts - 1) << "cut at " << size;
        ASSERT_EQ(pFile->m_damage.has_value(), lastEnd != size) << "cut at " << size;
        if (pFile->m_damage)
        {
            EXPECT_EQ(pFile->m_damage->m_offset, lastEnd) << "cut at " << size;
            EXPECT_EQ(pFile->m_damage->m_kind, ZORV_DAMAGE_TRUNCATED) << "cut at " << size;
        }
    }
}

} // namespace

TEST(TruncatedFile, TraceCutAtEveryByte)
{
    CheckEveryCut(
        {"a.umt",
         FileBytes().StreamHeader().Proc("main", 1, 0).Pthread(1, 2, 3).Syscall(1, 4, 5).ThreadEnd(6, 0),
         {24, 104, 168, 232, 272}});
}

TEST(TruncatedFile, SamplesCutAtEveryByte)
{
    FileBytes file;
    file.StreamHeader().SampleRecordHeader(4, 40, 2, 0).U32(1).U32(0).U64(7);
    file.SampleRecordHeader(3, 88, 3, 6).U64(0).U32(0).U32(1).U64(9).U32(1).U32(0).U64(1).U64(2).U64(3).U64(4);
    file.SampleRecordHeader(5, 32, 0, 7).U64(0xF00);
    CheckEveryCut({"a.ums", file, {24, 64, 152, 184}});
}

TEST(TruncatedFile, MetadataCutAtEveryByte)
{
    CheckEveryCut({"a.meta", FileBytes().MetadataHeader().Mmap(1, 2, "/a").Mmap(3, 4, "/bb"), {16, 59, 103}});
}

TEST(UnreadableFile, MissingFile)
{
    const auto pFile = OpenRecordFile("/nonexistent/a.umt");
    ASSERT_TRUE(pFile->m_damage);
    EXPECT_EQ(pFile->m_damage->m_kind, ZORV_DAMAGE_UNREADABLE);
}

TEST(UnreadableFile, Directory)
{
    const TestFolder folder;
    const std::string path = folder.m_path + "/a.umt";
    std::filesystem::create_directory(path);
    const auto pFile = OpenRecordFile(path);
    ASSERT_TRUE(pFile->m_damage);
    EXPECT_EQ(pFile->m_damage->m_kind, ZORV_DAMAGE_UNREADABLE);
}

// Opening one would otherwise wait for a writer that never comes.
TEST(UnreadableFile, Pipe)
{
    const TestFolder folder;
    const std::string path = folder.m_path + "/a.umt";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const auto pFile = OpenRecordFile(path);
    ASSERT_TRUE(pFile->m_damage);
    EXPECT_EQ(pFile->m_damage->m_kind, ZORV_DAMAGE_UNREADABLE);
}

TEST(UnreadableFile, NameOfNoKnownKind)
{
    const TestFolder folder;
    const auto pFile = OpenRecordFile(folder.Write("a.txt", Trace()));
    ASSERT_TRUE(pFile->m_damage);
    EXPECT_EQ(pFile->m_damage->m_kind, ZORV_DAMAGE_UNKNOWN_FILE);
}

// No byte of a file, whatever its value, may do more than end the reading.
TEST(HostileFile, EveryByteTurnedRoundIsReadOrRefused)
{
    FileBytes trace = Trace().Proc("main", 1, 0).Syscall(1, 4, 5).ThreadEnd(6, 0);
    FileBytes samples = Samples();
    samples.SampleRecordHeader(3, 88, 3, 6)
        .U64(0)
        .U32(0)
        .U32(1)
        .U64(9)
        .U32(1)
        .U32(0)
        .U64(1)
        .U64(2)
        .U64(3)
        .U64(4);
    const std::pair<const char*, FileBytes> files[] = {
        {"a.umt", trace}, {"a.ums", samples}, {"a.meta", Metadata()}};
    const TestFolder folder;
    for (const auto& [pName, file] : files)
    {
        for (std::size_t at = 0; at < file.m_bytes.size(); ++at)
        {
            std::string bytes = file.m_bytes;
            bytes[at] = static_cast<char>(~bytes[at]);
            const auto pFile = OpenRecordFile(folder.Write(pName, bytes));
            const std::size_t records = CountRecords(pFile.get());
            EXPECT_LE(records, 4u) << pName << " byte " << at;
            EXPECT_TRUE(!pFile->m_damage || pFile->m_damage->m_offset <= bytes.size());
        }
    }
}
