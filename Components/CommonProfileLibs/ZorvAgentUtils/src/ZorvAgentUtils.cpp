#include "ZorvAgentUtils.h"

#include <cerrno>

extern "C" void* fnOpenSharedMemory(const char* pName, size_t size, int* pFd)
{
    if (pName == nullptr)
        return nullptr;

    bool isCreated = true;
    int fd = ZorvUmaShmOpen(pName, O_RDWR | O_CREAT | O_EXCL, 0644);
    if (fd < 0 && errno == EEXIST)
    {
        isCreated = false;
        fd = ZorvUmaShmOpen(pName, O_RDWR, 0644);
    }
    if (fd < 0)
        return nullptr;

    if (ZorvUmaFtruncate(fd, static_cast<off_t>(size)) != 0)
    {
        ZorvUmaShmUnlink(pName);
        return nullptr;
    }
    void* pAddr = ZorvUmaMmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (pAddr == MAP_FAILED)
    {
        ZorvUmaShmUnlink(pName);
        return pAddr;
    }
    if (isCreated)
        ZorvUmaMemset(pAddr, 0, size);
    if (pFd != nullptr)
        *pFd = fd;
    return pAddr;
}

extern "C" bool fnCloseSharedMemory(int fd, void* pAddr, size_t size)
{
    if (fd < 0)
        return false;
    if (pAddr != MAP_FAILED)
        ZorvUmaMunmap(pAddr, size);
    ZorvUmaClose(fd);
    return true;
}

extern "C" bool fnUnlinkSharedMemory(const char* pName, void* pAddr, size_t size)
{
    if (pName == nullptr)
        return true;
    if (pAddr != MAP_FAILED)
        ZorvUmaMunmap(pAddr, size);
    ZorvUmaShmUnlink(pName);
    return true;
}

extern "C" bool fnIncreaseFdLimit()
{
    struct rlimit limit;
    if (ZorvUmaGetrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_max <= limit.rlim_cur)
        return false;
    limit.rlim_cur = limit.rlim_max;
    return ZorvUmaSetrlimit(RLIMIT_NOFILE, &limit) == 0;
}

namespace
{

// One attempt, and one more when descriptors had run out and more could be allowed.
template <typename Open> int OpenWithRetry(Open open)
{
    errno = 0;
    int fd = open();
    if (fd < 0 && errno == EMFILE && fnIncreaseFdLimit())
    {
        errno = 0;
        fd = open();
    }
    return fd;
}

} // namespace

extern "C" int fnOpenFile(const char* pPathname, int flags, mode_t mode)
{
    return OpenWithRetry(
        [=]
        { return mode != 0 ? ZorvUmaOpenWithMode(pPathname, flags, mode) : ZorvUmaOpen(pPathname, flags); });
}

extern "C" int fnPerfEventOpen(struct perf_event_attr* pAttr, pid_t pid, int cpu, int groupFd,
                               unsigned long flags)
{
    return OpenWithRetry([=]
                         { return static_cast<int>(ZorvUmaPerfEventOpen(pAttr, pid, cpu, groupFd, flags)); });
}
