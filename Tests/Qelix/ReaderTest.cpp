// Valid files, field by field.
#include "FileBytes.h"
#include "Reader/RecordFile.h"
#include "Reader/RecordNames.h"

#include <gtest/gtest.h>

using namespace qelix;

namespace
{

struct ReadResult
{
    std::unique_ptr<RecordFile> m_pFile;
    std::vector<Record> m_records;
};

ReadResult ReadAll(const std::string& path)
{
    ReadResult result{OpenRecordFile(path), {}};
    Record record;
    while (NextRecord(result.m_pFile.get(), &record))
    {
        result.m_records.push_back(record);
    }
    return result;
}

struct ReaderTest : testing::Test
{
    TestFolder m_folder;

    ReadResult Read(const std::string& name, const FileBytes& file)
    {
        ReadResult result = ReadAll(m_folder.Write(name, file));
        EXPECT_FALSE(result.m_pFile->m_damage) << DamageMessage(*result.m_pFile->m_damage);
        return result;
    }
};

} // namespace

TEST_F(ReaderTest, AnEmptyFileIsAStreamThatWasNeverOn)
{
    for (const char* pName : {"a.umt", "a.ums", "a.meta"})
    {
        const ReadResult result = Read(pName, FileBytes());
        EXPECT_FALSE(result.m_pFile->m_header.m_isPresent);
        EXPECT_TRUE(result.m_records.empty());
    }
}

TEST_F(ReaderTest, HeaderOfATraceFile)
{
    const ReadResult result = Read("a.umt", FileBytes().StreamHeader(4242, -7));
    const FileHeader& header = result.m_pFile->m_header;
    EXPECT_TRUE(header.m_isPresent);
    EXPECT_EQ(header.m_pid, 4242);
    EXPECT_EQ(header.m_mpiRankId, -7);
    EXPECT_EQ(header.m_fileVersion, 2);
    EXPECT_EQ(header.m_size, 24);
}

TEST_F(ReaderTest, HeaderOfAMetadataFile)
{
    const ReadResult result = Read("a.meta", FileBytes().MetadataHeader(4242));
    EXPECT_EQ(result.m_pFile->m_header.m_pid, 4242);
    EXPECT_EQ(result.m_pFile->m_header.m_fileVersion, 1);
    EXPECT_EQ(result.m_pFile->m_header.m_size, 16);
}

TEST_F(ReaderTest, PthreadRecord)
{
    FileBytes file;
    file.StreamHeader().TraceRecordHeader(1, 64, 3, 100, 350, 43);
    file.U64(0xABCD).U64(0x7F00).U64(5).U32(static_cast<uint32_t>(-2)).U16(0).U16(0);
    const ReadResult result = Read("a.umt", file);
    ASSERT_EQ(result.m_records.size(), 1u);
    EXPECT_EQ(result.m_records[0].m_offset, 24u);
    EXPECT_EQ(result.m_records[0].m_size, 64);
    const auto& call = std::get<PthreadRecord>(result.m_records[0].m_body);
    EXPECT_EQ(call.m_hdr.m_subType, 3);
    EXPECT_EQ(call.m_hdr.m_startTime, 100u);
    EXPECT_EQ(call.m_hdr.m_endTime, 350u);
    EXPECT_EQ(call.m_hdr.m_pid, 42);
    EXPECT_EQ(call.m_hdr.m_tid, 43);
    EXPECT_EQ(call.m_body.m_lockAddress, 0xABCDu);
    EXPECT_EQ(call.m_body.m_funcVa, 0x7F00u);
    EXPECT_EQ(call.m_body.m_parId, 5u);
    EXPECT_EQ(call.m_body.m_retValue, -2);
}

TEST_F(ReaderTest, ACallStackBehindACallRecord)
{
    FileBytes file;
    file.StreamHeader().TraceRecordHeader(1, 80, 1, 100, 350);
    file.U64(1).U64(2).U64(0).U32(0).U16(2).U16(0).U64(0xAA).U64(0xBB);
    const ReadResult result = Read("a.umt", file);
    ASSERT_EQ(result.m_records.size(), 1u);
    EXPECT_EQ(std::get<PthreadRecord>(result.m_records[0].m_body).m_callStack,
              (std::vector<uint64_t>{0xAA, 0xBB}));
}

TEST_F(ReaderTest, ACallThatNeverReturnedAndOneThatTheClockMissed)
{
    const ReadResult result =
        Read("a.umt", FileBytes().StreamHeader().Pthread(1, 100, NEVER).Pthread(1, 100, 0));
    EXPECT_EQ(result.m_records.size(), 2u);
}

TEST_F(ReaderTest, SyscallRecordWithItsNumber)
{
    const ReadResult result = Read("a.umt", FileBytes().StreamHeader().Syscall(6, 10, 20, 1));
    ASSERT_EQ(result.m_records.size(), 1u);
    const auto& call = std::get<SyscallRecord>(result.m_records[0].m_body);
    EXPECT_EQ(call.m_hdr.m_flags, 1);
    EXPECT_EQ(call.m_body.m_sysCallId, 0x8000u);
    EXPECT_EQ(call.m_body.m_sysValue, 9u);
}

TEST_F(ReaderTest, ThreadNameOfExactly32BytesHasNoTerminator)
{
    const std::string name(32, 'n');
    const ReadResult result =
        Read("a.umt", FileBytes().StreamHeader().Proc(name, 7, 0xF00).ThreadEnd(9, 0xF00));
    ASSERT_EQ(result.m_records.size(), 2u);
    EXPECT_EQ(RecordName(std::get<TraceProcRecord>(result.m_records[0].m_body).m_body), name);
    EXPECT_EQ(std::get<TraceThreadEndRecord>(result.m_records[1].m_body).m_body.m_pthreadId, 0xF00u);
}

TEST_F(ReaderTest, AProcRecordOfAnotherThreadHasThreadIdMinusOne)
{
    const ReadResult result = Read("a.umt", FileBytes().StreamHeader().Proc("renamed", 7, 0xF00, -1));
    EXPECT_EQ(result.m_records.size(), 1u);
}

TEST_F(ReaderTest, ReservedRecordTypesAreHandedOutUnread)
{
    FileBytes file;
    file.StreamHeader().TraceRecordHeader(2, 48, 0, 1, 2).Zeroes(16).Pthread(1, 3, 4);
    const ReadResult result = Read("a.umt", file);
    ASSERT_EQ(result.m_records.size(), 2u);
    EXPECT_TRUE(std::holds_alternative<OpaqueRecord>(result.m_records[0].m_body));
    EXPECT_EQ(result.m_records[1].m_offset, 24u + 48u);
}

TEST_F(ReaderTest, AHeaderOfType0EndsTheData)
{
    const ReadResult result = Read("a.umt", FileBytes().StreamHeader().Pthread(1, 1, 2).Zeroes(64));
    EXPECT_EQ(result.m_records.size(), 1u);
    EXPECT_EQ(result.m_pFile->m_unreadBytes, 64u);
}

TEST_F(ReaderTest, SampleWithOneFrameAndTwoCountersHas120Bytes)
{
    FileBytes file;
    file.StreamHeader().SampleRecordHeader(3, 120, 3, 1000).U64(6).U32(0).U32(1).U64(0xFACE).U32(2).U32(0);
    file.U64(11).U64(12).U64(13).U64(14).U64(21).U64(22).U64(23).U64(24);
    const ReadResult result = Read("a.ums", file);
    ASSERT_EQ(result.m_records.size(), 1u);
    const auto& sample = std::get<SampleRecord>(result.m_records[0].m_body);
    EXPECT_EQ(sample.m_hdr.m_coreId, 5);
    EXPECT_EQ(sample.m_hdr.m_startTime, 1000u);
    EXPECT_EQ(sample.m_body.m_parId, 6u);
    EXPECT_EQ(sample.m_callStack, std::vector<uint64_t>{0xFACE});
    ASSERT_EQ(sample.m_events.size(), 2u);
    EXPECT_EQ(sample.m_events[1].m_eventCount, 21u);
    EXPECT_EQ(sample.m_events[1].m_timeEnabled, 22u);
    EXPECT_EQ(sample.m_events[1].m_timeRunning, 23u);
    EXPECT_EQ(sample.m_events[1].m_id, 24u);
}

TEST_F(ReaderTest, TheOtherSampleRecords)
{
    FileBytes file;
    file.StreamHeader().SampleRecordHeader(4, 48, 3, 0).U32(2).U32(0).U64(0xE1).U64(0xE2);
    file.SampleRecordHeader(1, 72, 1, 5).U64(0xF00).U32(0).Text("name", 32).U32(0);
    file.SampleRecordHeader(3, 56, 1, 6).U64(0).U32(0).U32(2).U64(0xA).U64(0xB);
    file.SampleRecordHeader(5, 32, 0, 7).U64(0xF00);
    const ReadResult result = Read("a.ums", file);
    ASSERT_EQ(result.m_records.size(), 4u);
    EXPECT_EQ(std::get<SampleEventsRecord>(result.m_records[0].m_body).m_eventIds,
              (std::vector<uint64_t>{0xE1, 0xE2}));
    EXPECT_EQ(RecordName(std::get<SampleProcRecord>(result.m_records[1].m_body).m_body), "name");
    EXPECT_EQ(std::get<SampleRecord>(result.m_records[2].m_body).m_callStack.size(), 2u);
    EXPECT_EQ(std::get<SampleThreadEndRecord>(result.m_records[3].m_body).m_body.m_pthreadId, 0xF00u);
}

TEST_F(ReaderTest, MappingRecordsFollowEachOtherUnaligned)
{
    const ReadResult result =
        Read("a.meta",
             FileBytes().MetadataHeader().Mmap(0x1000, 0x2000, "/bin/tests").Mmap(0x3000, 0x3000, "[vdso]"));
    ASSERT_EQ(result.m_records.size(), 2u);
    EXPECT_EQ(result.m_records[0].m_size, 51);
    EXPECT_EQ(result.m_records[1].m_offset, 16u + 51u);
    const auto& mmap = std::get<MmapRecord>(result.m_records[0].m_body);
    EXPECT_EQ(mmap.m_path, "/bin/tests");
    EXPECT_EQ(mmap.m_fixed.m_startAddress, 0x1000u);
    EXPECT_EQ(mmap.m_fixed.m_endAddress, 0x2000u);
    EXPECT_EQ(mmap.m_fixed.m_time, 77u);
}

TEST_F(ReaderTest, MetadataRecordsOfOtherProducersAreSteppedOver)
{
    FileBytes file;
    file.MetadataHeader().U16(2).U16(13).U32(42).Zeroes(5).Mmap(1, 2, "/a");
    const ReadResult result = Read("a.meta", file);
    ASSERT_EQ(result.m_records.size(), 2u);
    EXPECT_EQ(result.m_records[1].m_offset, 16u + 13u);
}

// More than any buffer of the reader holds, with record sizes that never divide it.
TEST_F(ReaderTest, ALargeFileOfUnevenRecordsIsReadToItsEnd)
{
    FileBytes file;
    file.MetadataHeader();
    constexpr unsigned count = 40000;
    for (unsigned i = 0; i < count; ++i)
    {
        file.Mmap(i, i + 1, "/" + std::string(i % 97, 'p'));
    }
    const ReadResult result = Read("a.meta", file);
    ASSERT_EQ(result.m_records.size(), count);
    EXPECT_EQ(std::get<MmapRecord>(result.m_records.back().m_body).m_fixed.m_startAddress, count - 1);
}

TEST_F(ReaderTest, TheLargestRecordThatASizeCanName)
{
    const unsigned frames = (65535 - 40) / 8;
    FileBytes file;
    file.StreamHeader()
        .SampleRecordHeader(3, 40 + 8 * frames, 1, 6)
        .U64(0)
        .U32(0)
        .U32(frames)
        .Zeroes(8 * frames);
    const ReadResult result = Read("a.ums", file);
    ASSERT_EQ(result.m_records.size(), 1u);
    EXPECT_EQ(std::get<SampleRecord>(result.m_records[0].m_body).m_callStack.size(), frames);
}

TEST(RecordNames, EveryKindOfCallHasItsWord)
{
    EXPECT_STREQ(FindCallKind(1, 1)->m_pName, "mutex");
    EXPECT_STREQ(FindCallKind(1, 3)->m_pName, "condition");
    EXPECT_STREQ(FindCallKind(1, 5)->m_pName, "rwlock");
    EXPECT_STREQ(FindCallKind(1, 7)->m_pName, "spinlock");
    EXPECT_STREQ(FindCallKind(1, 9)->m_pName, "barrier");
    EXPECT_STREQ(FindCallKind(1, 10)->m_pName, "semaphore");
    EXPECT_STREQ(FindCallKind(1, 12)->m_pName, "create");
    EXPECT_STREQ(FindCallKind(1, 13)->m_pName, "join");
    EXPECT_STREQ(FindCallKind(1, 14)->m_pName, "exit");
    EXPECT_STREQ(FindCallKind(1, 16)->m_pName, "cancel");
    EXPECT_STREQ(FindCallKind(3, 1)->m_pName, "sleep");
    EXPECT_STREQ(FindCallKind(3, 2)->m_pName, "wait");
    EXPECT_STREQ(FindCallKind(3, 3)->m_pName, "lock");
    EXPECT_STREQ(FindCallKind(3, 4)->m_pName, "io-sync");
    EXPECT_STREQ(FindCallKind(3, 5)->m_pName, "io");
    EXPECT_STREQ(FindCallKind(3, 6)->m_pName, "other");
}

TEST(RecordNames, TextFromAFileCannotSteerATerminal)
{
    EXPECT_EQ(PrintableText("plain \"text\""), "plain \"text\"");
    EXPECT_EQ(PrintableText("a\x1b[2Jb\n"), "a\\x1b[2Jb\\x0a");
    EXPECT_EQ(PrintableText("gr\xc3\xbc\xc3\x9f"), "gr\xc3\xbc\xc3\x9f");
    EXPECT_EQ(PrintableText("\xff\xc3"), "\\xff\\xc3");
    EXPECT_EQ(PrintableText("\xc2\x9b"), "\\xc2\\x9b") << "a control character above ASCII";
}
