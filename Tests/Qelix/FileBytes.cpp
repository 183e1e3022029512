#include "FileBytes.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace
{

void AppendLittleEndian(std::string* pBytes, uint64_t value, unsigned size)
{
    for (unsigned i = 0; i < size; ++i)
    {
        pBytes->push_back(static_cast<char>(value >> (8 * i)));
    }
}

} // namespace

FileBytes& FileBytes::U8(uint8_t value)
{
    AppendLittleEndian(&m_bytes, value, 1);
    return *this;
}

FileBytes& FileBytes::U16(uint16_t value)
{
    AppendLittleEndian(&m_bytes, value, 2);
    return *this;
}

FileBytes& FileBytes::U32(uint32_t value)
{
    AppendLittleEndian(&m_bytes, value, 4);
    return *this;
}

FileBytes& FileBytes::U64(uint64_t value)
{
    AppendLittleEndian(&m_bytes, value, 8);
    return *this;
}

FileBytes& FileBytes::Zeroes(std::size_t count)
{
    m_bytes.append(count, '\0');
    return *this;
}

FileBytes& FileBytes::Text(const std::string& text, std::size_t fieldSize)
{
    m_bytes += text;
    return Zeroes(fieldSize - text.size());
}

FileBytes& FileBytes::StreamHeader(int32_t pid, int32_t rank)
{
    return U64(NEVER).U32(pid).U32(rank).U16(2).U16(0).U32(0);
}

FileBytes& FileBytes::MetadataHeader(uint32_t pid)
{
    return U64(NEVER).U32(pid).U16(0).U16(1);
}

FileBytes& FileBytes::TraceRecordHeader(uint16_t type, uint16_t size, uint16_t subType, uint64_t start,
                                        uint64_t end, int32_t tid, uint16_t flags)
{
    return U16(type).U16(size).U16(subType).U16(flags).U64(start).U64(end).U32(42).U32(tid);
}

FileBytes& FileBytes::Pthread(uint16_t subType, uint64_t start, uint64_t end, uint64_t lock, int32_t tid)
{
    return TraceRecordHeader(1, 64, subType, start, end, tid).U64(lock).U64(0x7000).U64(0).U32(0).U16(0).U16(0);
}

FileBytes& FileBytes::Syscall(uint16_t subType, uint64_t start, uint64_t end, uint16_t flags, int32_t tid)
{
    return TraceRecordHeader(3, 64, subType, start, end, tid, flags).U64(0x8000).U64(0).U64(9).U16(0).Zeroes(6);
}

FileBytes& FileBytes::Proc(const std::string& name, uint64_t start, uint64_t pthreadId, int32_t tid)
{
    return TraceRecordHeader(4, 80, 0, start, 0, tid).U64(pthreadId).U32(0).Text(name, 32).U32(0);
}

FileBytes& FileBytes::ThreadEnd(uint64_t time, uint64_t pthreadId, int32_t tid)
{
    return TraceRecordHeader(7, 40, 0, time, time, tid).U64(pthreadId);
}

FileBytes& FileBytes::SampleRecordHeader(uint16_t type, uint16_t size, uint16_t flags, uint64_t time,
                                         int32_t tid)
{
    return U32(42).U32(tid).U16(type).U16(size).U16(5).U16(flags).U64(time);
}

FileBytes& FileBytes::Mmap(uint64_t start, uint64_t end, const std::string& path)
{
    U16(0).U16(41 + path.size()).U32(42).U64(start).U64(end).U64(77).U16(path.size()).U8(1).U8(0).U32(0);
    m_bytes += path;
    return U8(0);
}

TestFolder::TestFolder()
{
    std::string pattern = fs::temp_directory_path() / "qelix-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr)
    {
        throw std::runtime_error("no folder for the test");
    }
    m_path = pattern;
}

TestFolder::~TestFolder()
{
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
}

std::string TestFolder::Write(const std::string& name, const std::string& bytes) const
{
    const fs::path path = fs::path(m_path) / name;
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
}

std::string TestFolder::Write(const std::string& name, const FileBytes& file) const
{
    return Write(name, file.m_bytes);
}
