// Room on disk for what does not fit into the memory that a command may use. The file has no name: nobody else
// sees it, and it is gone with the process, however that ends.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qelix
{

struct SpillFile
{
    SpillFile() = default;
    SpillFile(const SpillFile&) = delete;
    SpillFile& operator=(const SpillFile&) = delete;
    ~SpillFile();

    int m_fd = -1; // opened by the first append
    uint64_t m_size = 0;
};

// Lies in $TMPDIR, else in /var/tmp. Both fail when the disk does not hold, or give back, the bytes.
void AppendToSpill(SpillFile* pFile, const void* pBytes, std::size_t size);
void ReadSpill(const SpillFile& file, uint64_t offset, void* pBytes, std::size_t size);

} // namespace qelix
