// Builds the agent's files byte by byte, from the layouts' numbers and without the layouts' headers: a wrong
// header must not make the reader and its tests agree.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

constexpr uint64_t NEVER = 0xFFFFFFFFFFFFFFFF;

struct FileBytes
{
    std::string m_bytes;

    FileBytes& U8(uint8_t value);
    FileBytes& U16(uint16_t value);
    FileBytes& U32(uint32_t value);
    FileBytes& U64(uint64_t value);
    FileBytes& Zeroes(std::size_t count);
    FileBytes& Text(const std::string& text, std::size_t fieldSize);

    // Whole structures, with the values that the agent writes where the test does not care.
    FileBytes& StreamHeader(int32_t pid = 42, int32_t rank = 0);
    FileBytes& MetadataHeader(uint32_t pid = 42);
    FileBytes& TraceRecordHeader(uint16_t type, uint16_t size, uint16_t subType, uint64_t start, uint64_t end,
                                 int32_t tid = 43, uint16_t flags = 0);
    FileBytes& Pthread(uint16_t subType, uint64_t start, uint64_t end, uint64_t lock = 0x1000,
                       int32_t tid = 43);
    FileBytes& Syscall(uint16_t subType, uint64_t start, uint64_t end, uint16_t flags = 0, int32_t tid = 43);
    FileBytes& Proc(const std::string& name, uint64_t start, uint64_t pthreadId, int32_t tid = 43);
    FileBytes& ThreadEnd(uint64_t time, uint64_t pthreadId, int32_t tid = 43);
    FileBytes& SampleRecordHeader(uint16_t type, uint16_t size, uint16_t flags, uint64_t time,
                                  int32_t tid = 43);
    FileBytes& Mmap(uint64_t start, uint64_t end, const std::string& path);
};

// A directory of its own for each test, gone afterwards.
struct TestFolder
{
    TestFolder();
    TestFolder(const TestFolder&) = delete;
    TestFolder& operator=(const TestFolder&) = delete;
    ~TestFolder();

    // Writes a file and returns its path; folders in the name are made.
    std::string Write(const std::string& name, const std::string& bytes) const;
    std::string Write(const std::string& name, const FileBytes& file) const;

    std::string m_path;
};
