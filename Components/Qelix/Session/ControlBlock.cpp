#include "Session/ControlBlock.h"

#include "Session/Failure.h"
#include "ZorvAgentControlTypes.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace qelix
{
namespace
{

// Process ids are unique in a pid namespace only, and a qelix that was killed leaves its block behind.
constexpr int ZORV_NAME_ATTEMPTS = 100;

std::string BlockName(int attempt)
{
    return attempt == 0 ? fmt::format("/qelix-{}", getpid()) : fmt::format("/qelix-{}-{}", getpid(), attempt);
}

int OpenNew(std::string* pName)
{
    int fd = -1;
    for (int attempt = 0; fd < 0 && attempt < ZORV_NAME_ATTEMPTS; ++attempt)
    {
        *pName = BlockName(attempt);
        fd = shm_open(pName->c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
        if (fd < 0 && errno != EEXIST)
        {
            break;
        }
    }
    return fd;
}

} // namespace

ControlBlock::ControlBlock()
{
    const int fd = OpenNew(&m_name);
    const bool isMade = fd >= 0 && ftruncate(fd, sizeof(ZorvAgentSharedInfo)) == 0; // grows with zeroes
    const int error = errno;
    if (fd >= 0)
    {
        close(fd);
    }
    if (!isMade)
    {
        if (fd >= 0)
        {
            shm_unlink(m_name.c_str());
        }
        throw Failure(
            ZORV_STATUS_OWN_FAILURE,
            "cannot make the shared memory {}: {}; check that /dev/shm is mounted, writable and not full",
            m_name, strerror(error));
    }
}

ControlBlock::~ControlBlock()
{
    RemoveControlBlock(m_name);
}

void RemoveControlBlock(const std::string& name)
{
    shm_unlink(name.c_str());
}

} // namespace qelix
