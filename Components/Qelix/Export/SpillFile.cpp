#include "Export/SpillFile.h"

#include "Session/Failure.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace qelix
{
namespace
{

std::string SpillFolder()
{
    const char* pFolder = getenv("TMPDIR");
    return pFolder != nullptr && *pFolder != '\0' ? pFolder : "/var/tmp";
}

[[noreturn]] void FailSpill()
{
    throw Failure(ZORV_FAILURE_CANNOT_WRITE,
                  "temporary data does not fit into {}: {}; name a folder with more room in TMPDIR",
                  SpillFolder(), strerror(errno))
        .At(SpillFolder());
}

int OpenNameless()
{
    const std::string folder = SpillFolder();
    const int fd = open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd >= 0)
    {
        return fd;
    }
    std::string name = folder + "/qelix-XXXXXX"; // not every file system has files without a name
    const int named = mkostemp(name.data(), O_CLOEXEC);
    if (named >= 0)
    {
        unlink(name.c_str());
    }
    return named;
}

} // namespace

SpillFile::~SpillFile()
{
    if (m_fd >= 0)
    {
        close(m_fd);
    }
}

void AppendToSpill(SpillFile* pFile, const void* pBytes, std::size_t size)
{
    if (pFile->m_fd < 0 && (pFile->m_fd = OpenNameless()) < 0)
    {
        FailSpill();
    }
    const char* pNext = static_cast<const char*>(pBytes);
    while (size != 0)
    {
        const ssize_t count = pwrite(pFile->m_fd, pNext, size, static_cast<off_t>(pFile->m_size));
        if (count < 0 && errno == EINTR)
        {
            continue;
        }
        if (count < 0)
        {
            FailSpill();
        }
        pNext += count;
        pFile->m_size += static_cast<uint64_t>(count);
        size -= static_cast<std::size_t>(count);
    }
}

void ReadSpill(const SpillFile& file, uint64_t offset, void* pBytes, std::size_t size)
{
    char* pNext = static_cast<char*>(pBytes);
    while (size != 0)
    {
        const ssize_t count = pread(file.m_fd, pNext, size, static_cast<off_t>(offset));
        if (count < 0 && errno == EINTR)
        {
            continue;
        }
        if (count <= 0)
        {
            FailSpill();
        }
        pNext += count;
        offset += static_cast<uint64_t>(count);
        size -= static_cast<std::size_t>(count);
    }
}

} // namespace qelix
