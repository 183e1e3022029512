// Mappings, locked memory, the break, and the memory of processes.
#include "every_call.h"
#include <sys/mman.h>
#include <sys/uio.h>

#define PAGE 4096

static char g_static[64] = "remote bytes";

static void CallMappings(int fd)
{
    char* pAnonymous =
        CALL_MAP(mmap, NULL, 4 * PAGE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    CALL_MAP(mmap, NULL, 0, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    CALL_MAP(mmap, NULL, PAGE, PROT_READ, MAP_PRIVATE, -1, 0);
    char* pFile = CALL_MAP(mmap64, NULL, PAGE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    CALL_MAP(mmap64, NULL, PAGE, PROT_READ, MAP_SHARED, fd, 5);
    char* pCode = CALL_MAP(mmap, NULL, PAGE, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, 0);
    Note("  file says %.6s, code says %.6s\n", pFile, pCode);
    strcpy(pAnonymous, "anonymous");
    strcpy(pFile, "mapped");
    CALL(msync, pFile, PAGE, MS_SYNC);
    CALL(msync, pFile, PAGE, 77);
    CALL(mprotect, pAnonymous, PAGE, PROT_READ);
    CALL(mprotect, pAnonymous + 1, PAGE, PROT_READ);
    CALL(mlock, pAnonymous, PAGE);
    CALL(mlock, NULL, -1);
    CALL(mlock2, pAnonymous, PAGE, 0);
    CALL(mlock2, pAnonymous, PAGE, 77);
    CALL(munlock, pAnonymous, PAGE);
    CALL(munlock, NULL, PAGE);
    CALL(munmap, pCode, PAGE);
    CALL(munmap, pFile, PAGE);
    CALL(munmap, pFile + 1, PAGE);
    // the optional word: without it, and with the new address
    char* pMoved = CALL_KIND(mremap, pAnonymous, 4 * PAGE, 2 * PAGE, 0);
    char* pTarget = CALL_MAP(mmap, NULL, PAGE, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    char* pThere = CALL_KIND(mremap, pMoved + PAGE, PAGE, PAGE, MREMAP_MAYMOVE | MREMAP_FIXED, pTarget);
    Note("  moved: same %d, to the target %d, says %s\n", pMoved == pAnonymous, pThere == pTarget, pMoved);
    CALL_KIND(mremap, pMoved + 1, PAGE, PAGE, 0);
    CALL(munmap, pMoved, PAGE);
    CALL(munmap, pThere, PAGE);
}

static void CallWholeProcess(void)
{
    CALL(mlockall, 77);
    CALL(munlockall);
    void* pBreak = CALL_KIND(sbrk, 0);
    CALL(brk, pBreak);
    Note("  break kept %d\n", sbrk(0) == pBreak);
    ExpectRecord("sbrk", 0, 0);
}

static void CallOtherProcesses(void)
{
    char copy[64] = "";
    struct iovec here = {copy, 12};
    struct iovec there = {g_static, 12};
    CALL(process_vm_readv, getpid(), &here, 1, &there, 1, 0);
    Note("  read %s\n", copy);
    CALL(process_vm_readv, getpid(), &here, 1, &there, 1, 77);
    memcpy(copy, "WRITE", 5);
    CALL(process_vm_writev, getpid(), &here, 1, &there, 1, 0);
    Note("  written %s\n", g_static);
    CALL(process_vm_writev, 0x7fffffff, &here, 1, &there, 1, 0);
}

void CallMemory(void)
{
    int fd = CALL(open, "memory", O_RDWR | O_CREAT, 0600);
    CALL(write, fd, "in the file", 12);
    CALL(ftruncate, fd, PAGE);
    CallMappings(fd);
    CALL(close, fd);
    CallWholeProcess();
    CallOtherProcesses();
}
