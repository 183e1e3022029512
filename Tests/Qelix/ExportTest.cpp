// What exports make of sessions that no program leaves.
#include "Export/Filter.h"
#include "Export/Folded.h"
#include "Export/Formats.h"
#include "FileBytes.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

using namespace qelix;

namespace
{

std::string ContentOf(const std::string& path)
{
    std::ifstream file(path);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

// A sample without a call stack of its own is not in the format: one frame, at an address that no file has.
FileBytes& AddSample(FileBytes* pBytes, uint64_t time, int32_t tid, uint64_t address)
{
    return pBytes->SampleRecordHeader(3, 24 + 16 + 8, 1, time, tid).U64(0).U32(0).U32(1).U64(address);
}

std::string Exported(const TestFolder& folder, void (*write)(SessionStream*, Output*),
                     const ExportFilter& filter = {})
{
    const auto pStream = OpenStream(folder.m_path, filter, false);
    const auto pOutput = OpenOutput(folder.m_path + "/out", ZORV_COMPRESS_NONE);
    write(pStream.get(), pOutput.get());
    CloseOutput(pOutput.get());
    return ContentOf(folder.m_path + "/out");
}

} // namespace

TEST(FoldedText, MarksOfTheFormAreTakenOutOfNames)
{
    EXPECT_EQ(FoldedFrame("Work(int; char)\n"), "Work(int: char)\\x0a");
    EXPECT_EQ(FoldedLabel("worker;1", 43), "worker:1 (43)");
    EXPECT_EQ(FoldedLabel("", 43), "- (43)");
}

TEST(Export, EqualStacksAreOneLineForEachThread)
{
    const TestFolder folder;
    folder.Write("trace/trace_host_42.umt", "");
    FileBytes samples;
    samples.StreamHeader();
    AddSample(&samples, 10, 43, 0x1000);
    AddSample(&samples, 30, 44, 0x1000);
    AddSample(&samples, 20, 43, 0x2000); // also nowhere: the same name
    folder.Write("sample/profile_host_42.ums", samples);
    EXPECT_EQ(Exported(folder, WriteFolded), "- (42);- (43);[no module] 2\n- (42);- (44);[no module] 1\n");
}

TEST(Export, ATimeSpanCountsFromTheFirstRecordOfTheSession)
{
    const TestFolder folder;
    folder.Write(
        "trace/trace_host_42.umt",
        FileBytes().StreamHeader().Pthread(1, 1000, 1010).Pthread(1, 1020, 1050).Pthread(1, 1060, NEVER));
    ExportFilter filter;
    filter.m_records.m_from = 15;
    filter.m_records.m_to = 30;
    EXPECT_NE(Exported(folder, WriteJsonLines, filter).find("\"start\":1020"), std::string::npos);
    EXPECT_EQ(Exported(folder, WriteJsonLines, filter).find("\"start\":1060"), std::string::npos);
    EXPECT_EQ(Exported(folder, WriteJsonLines, filter).find("\"start\":1000"), std::string::npos);
    filter.m_records.m_from = 55;
    filter.m_records.m_to.reset();
    EXPECT_NE(Exported(folder, WriteJsonLines, filter).find("\"start\":1060"), std::string::npos);
    EXPECT_EQ(Exported(folder, WriteJsonLines, filter).find("\"start\":1020"), std::string::npos);
}

TEST(Export, SessionsOfRanksAreOne)
{
    const TestFolder folder;
    folder.Write("rank=0/trace/trace_host_42.umt", FileBytes().StreamHeader(42, 0).Pthread(1, 1000, 1010));
    folder.Write("rank=1/trace/trace_host_42.umt", FileBytes().StreamHeader(42, 1).Pthread(1, 900, 1010));
    const std::string lines = Exported(folder, WriteJsonLines);
    EXPECT_NE(lines.find("\"type\":\"call\",\"rank\":0"), std::string::npos);
    EXPECT_NE(lines.find("\"type\":\"call\",\"rank\":1"), std::string::npos);
    WriteCsvPartitions(OpenStream(folder.m_path, {}, false).get(), folder.m_path + "/csv", ZORV_COMPRESS_NONE);
    EXPECT_NE(ContentOf(folder.m_path + "/csv/calls/rank=1/host_42.csv").find(",900,1010,110,"),
              std::string::npos);
}

TEST(Export, WhatIsNoSessionIsNamed)
{
    const TestFolder folder;
    EXPECT_THROW(OpenStream(folder.m_path, {}, false), std::exception);
}
