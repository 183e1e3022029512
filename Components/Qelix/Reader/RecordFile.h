// Reads one file of the agent from front to back, whatever its size, in a fixed amount of memory.
//
// Nothing in a file is believed before it is checked: files are cut off by kill -9 and full disks, and may be
// made by hand. The first thing that is wrong ends the reading; all that stood before it has been handed out.
#pragma once

#include "Reader/Damage.h"
#include "Reader/Records.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qelix
{

struct RecordFile
{
    RecordFile() = default;
    RecordFile(const RecordFile&) = delete;
    RecordFile& operator=(const RecordFile&) = delete;
    ~RecordFile();

    std::string m_path;
    FileKind m_kind = ZORV_FILE_TRACE;
    FileHeader m_header;
    std::optional<Damage> m_damage; // why the reading ended early
    uint64_t m_unreadBytes = 0;     // behind an end mark

    // Of the walk alone.
    int m_fd = -1;
    bool m_isEnded = false;
    uint64_t m_offset = 0; // in the file, of the first byte not handed out
    std::vector<std::byte> m_buffer;
    std::size_t m_begin = 0; // first byte of the buffer not handed out
    std::size_t m_end = 0;
};

// The kind that the file's name says; none for other names. The bytes alone do not tell a trace from a sample
// file.
std::optional<FileKind> FileKindOf(const std::string& path);

// Opens the file and reads its header. What is wrong stands in m_damage of the result, which is never null.
std::unique_ptr<RecordFile> OpenRecordFile(const std::string& path);

// The next record; false at the end of the file and at damage (m_damage says which).
bool NextRecord(RecordFile* pFile, Record* pRecord);

} // namespace qelix
