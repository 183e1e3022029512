// Which files a process can be traced in.
#include "Session/ProgramCheck.h"
#include "FileBytes.h"
#include "Session/Failure.h"

#include <elf.h>
#include <gtest/gtest.h>

using namespace qelix;

namespace
{

// The start of an ELF file, with one program header.
std::string ElfFile(uint8_t elfClass, uint16_t machine, uint32_t segmentType,
                    const std::string& interpreter = "")
{
    FileBytes file;
    file.Text("\x7f"
              "ELF",
              4);
    file.U8(elfClass).U8(1).U8(1).Zeroes(9);
    file.U16(ET_DYN).U16(machine).U32(1).U64(0).U64(64).U64(0).U32(0).U16(64).U16(56).U16(1).U16(0).U16(0).U16(
        0);
    file.U32(segmentType).U32(4).U64(120).U64(0).U64(0).U64(interpreter.size() + 1).U64(0).U64(1);
    file.m_bytes += interpreter;
    return file.U8(0).m_bytes;
}

struct ProgramCheckTest : testing::Test
{
    TestFolder m_folder;

    std::string ReasonFor(const std::string& bytes) const
    {
        return UntraceableReason(m_folder.Write("program", bytes));
    }
};

constexpr const char* LOADER = "/lib64/ld-linux-x86-64.so.2";

} // namespace

TEST_F(ProgramCheckTest, APlainProgramCanBeTraced)
{
    EXPECT_EQ(ReasonFor(ElfFile(ELFCLASS64, EM_X86_64, PT_INTERP, LOADER)), "");
    EXPECT_EQ(UntraceableReason("/bin/sh"), "");
    EXPECT_NO_THROW(RequireTraceable("/bin/sh"));
}

TEST_F(ProgramCheckTest, AProgramWithoutALoaderIsStaticallyLinked)
{
    EXPECT_NE(ReasonFor(ElfFile(ELFCLASS64, EM_X86_64, PT_LOAD)).find("is statically linked"),
              std::string::npos);
}

TEST_F(ProgramCheckTest, ProgramsOfOtherArchitecturesAreNamed)
{
    for (const auto& [elfClass, machine, name] :
         std::vector<std::tuple<uint8_t, uint16_t, std::string>>{{ELFCLASS32, EM_386, "32-bit x86"},
                                                                 {ELFCLASS32, EM_X86_64, "x32"},
                                                                 {ELFCLASS64, EM_AARCH64, "64-bit ARM"},
                                                                 {ELFCLASS64, 0x1234, "another architecture"}})
    {
        EXPECT_NE(ReasonFor(ElfFile(elfClass, machine, PT_INTERP, LOADER)).find("is a program for " + name),
                  std::string::npos);
    }
}

TEST_F(ProgramCheckTest, AnotherCLibraryIsNamed)
{
    EXPECT_NE(ReasonFor(ElfFile(ELFCLASS64, EM_X86_64, PT_INTERP, "/lib/ld-musl-x86_64.so.1")).find("musl"),
              std::string::npos);
}

TEST_F(ProgramCheckTest, AScriptIsWhatItsInterpreterIs)
{
    const std::string interpreter = m_folder.Write("static", ElfFile(ELFCLASS64, EM_X86_64, PT_LOAD));
    const std::string inner = m_folder.Write("inner", "#! " + interpreter + " -x\n");
    const std::string outer = m_folder.Write("outer", "#!" + inner + "\n");
    EXPECT_EQ(ExecutedFile(outer), interpreter);
    EXPECT_NE(UntraceableReason(outer).find("is a script for " + interpreter + ", which is statically"),
              std::string::npos);
    EXPECT_EQ(UntraceableReason(m_folder.Write("script", std::string("#!/bin/sh\n"))), "");
    EXPECT_EQ(ExecutedFile(m_folder.Write("text", std::string("exit 9\n"))), "/bin/sh");
}

TEST_F(ProgramCheckTest, AScriptThatNamesItselfEndsTheSearch)
{
    const std::string script = m_folder.m_path + "/loop";
    m_folder.Write("loop", "#!" + script + "\n");
    EXPECT_EQ(UntraceableReason(script), "");
}

TEST_F(ProgramCheckTest, WhatCannotBeReadOrUnderstoodIsLeftToTheKernel)
{
    EXPECT_EQ(UntraceableReason(m_folder.m_path + "/missing"), "");
    EXPECT_EQ(ReasonFor("\x7f"
                        "ELF"),
              "");
    EXPECT_EQ(ReasonFor(""), "");
}

TEST_F(ProgramCheckTest, TheAllocatorThatCannotBeTracedIsRefused)
{
    EXPECT_NO_THROW(RequireTraceablePreloads(nullptr));
    EXPECT_NO_THROW(RequireTraceablePreloads("/lib/libtcmalloc.so"));
    try
    {
        RequireTraceablePreloads("/a.so:/lib/libjemalloc.so.2");
        ADD_FAILURE();
    }
    catch (const Failure& failure)
    {
        EXPECT_EQ(StatusOf(failure.m_code), 126);
        EXPECT_NE(std::string(failure.what()).find("take it out"), std::string::npos);
    }
}
