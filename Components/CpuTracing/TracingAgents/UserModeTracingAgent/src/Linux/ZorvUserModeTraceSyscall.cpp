// Interposers of the system calls, expanded from their table: the class of a row says how it is timed.

#include "ZorvRawSyscall.h"
#include "ZorvUserModeTraceInterposers.h"
#include "ZorvUserModeTraceSignals.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <linux/close_range.h>
#include <mqueue.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/io.h>
#include <sys/mount.h>
#include <sys/msg.h>
#include <sys/ptrace.h>
#include <sys/select.h>
#include <sys/sem.h>
#include <sys/sendfile.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/swap.h>
#include <sys/uio.h>
#include <sys/wait.h>
#undef wait // nothing may stand between a row and its libc name

// Names that libc exports for compiled programs without declaring them, and one of libnuma's.
extern "C"
{
    int __open_2(const char* pPath, int flags);
    int __open64_2(const char* pPath, int flags);
    int __openat_2(int dirFd, const char* pPath, int flags);
    int __openat64_2(int dirFd, const char* pPath, int flags);
    ssize_t __read_chk(int fd, void* pBuf, size_t count, size_t bufSize);
    ssize_t __pread_chk(int fd, void* pBuf, size_t count, off_t offset, size_t bufSize);
    ssize_t __pread64_chk(int fd, void* pBuf, size_t count, off64_t offset, size_t bufSize);
    ssize_t __recv_chk(int fd, void* pBuf, size_t count, size_t bufSize, int flags);
    ssize_t __recvfrom_chk(int fd, void* pBuf, size_t count, size_t bufSize, int flags, struct sockaddr* pAddr,
                           socklen_t* pAddrLen);
    int __poll_chk(struct pollfd* pFds, nfds_t count, int timeout, size_t fdsSize);
    int __ppoll_chk(struct pollfd* pFds, nfds_t count, const timespec* pTimeout, const sigset_t* pMask,
                    size_t fdsSize);
    long move_pages(int pid, unsigned long count, void** ppPages, const int* pNodes, int* pStatus, int flags);
}

namespace
{

// The classes, and whether a call of the class may block for long.
struct Sleep
{
    using Pattern = ZorvParkedPattern;
    static constexpr ZorvCallClass CLASS = {ZORV_SYSCALL_TYPE_SLEEP, ZORV_UMT_EVENT_SLEEP};
};
struct EventWait
{
    using Pattern = ZorvParkedPattern;
    static constexpr ZorvCallClass CLASS = {ZORV_SYSCALL_TYPE_EVENT_WAIT, ZORV_UMT_EVENT_WAIT};
};
struct ResourceWait
{
    using Pattern = ZorvParkedPattern;
    static constexpr ZorvCallClass CLASS = {ZORV_SYSCALL_TYPE_RESOURCE_WAIT, ZORV_UMT_EVENT_LOCK};
};
struct IoSync
{
    using Pattern = ZorvParkedPattern;
    static constexpr ZorvCallClass CLASS = {ZORV_SYSCALL_TYPE_IO_SYNC, ZORV_UMT_EVENT_IO_SYNC};
};
struct Io
{
    using Pattern = ZorvDirectPattern;
    static constexpr ZorvCallClass CLASS = {ZORV_SYSCALL_TYPE_IO, ZORV_UMT_EVENT_IO};
};
struct Other
{
    using Pattern = ZorvDirectPattern;
    static constexpr ZorvCallClass CLASS = {ZORV_SYSCALL_TYPE_OTHER, ZORV_UMT_EVENT_SYSCALL};
};

template <typename ClassOfCall, long number> struct UnwinderCall
{
    using Class = ClassOfCall;
    static constexpr long NUMBER = number;
};

} // namespace

template <ZorvEntryPoint* pEntry, typename Class, typename Pointer>
using OfClass = ZorvGatedCall<typename Class::Pattern, pEntry, Class::CLASS, Pointer>;

// The numbers under which the unwinder knows its pipe. The program may have closed them and opened files of its
// own there, a forked child that has none of its parent's descriptors as well: the unwinder is told that its
// pipe is gone, and makes another.
static int g_unwindersPipe[2] = {-1, -1};

static bool IsUnwindersPipe(long fd)
{
    return fd == g_unwindersPipe[0] || fd == g_unwindersPipe[1];
}

// Whether the call would reach a file of the program's.
static bool IsOfLostPipe(long number, long first)
{
    if ((number != SYS_read && number != SYS_write && number != SYS_close) || !IsUnwindersPipe(first))
        return false;
    int fd = static_cast<int>(first);
    bool isLost = !ZorvUmaIsKept(fd);
    if (number == SYS_close)
        ZorvUmaForgetKeptFile(fd);
    return isLost;
}

// The unwinder tests memory through a pipe. libc's calls are points of cancellation, and a cancellation that is
// under way waits, in the handler of the profiling signal, for the handler below it.
template <ZorvEntryPoint* pEntry, typename Class, typename Pointer> struct OfUnwinder;
template <ZorvEntryPoint* pEntry, typename Class, typename R, typename... P>
struct OfUnwinder<pEntry, Class, R (*)(P...)>
{
    static R Call(P... arguments)
    {
        if (ZORV_LIKELY(!t_zorvState.m_isUnwinding))
            return OfClass<pEntry, typename Class::Class, R (*)(P...)>::Call(arguments...);
        const long words[] = {(long)arguments...};
        long result =
            IsOfLostPipe(Class::NUMBER, words[0]) ? -EBADF : ZorvRawSyscall(Class::NUMBER, (long)arguments...);
        if (result >= 0)
            return static_cast<R>(result);
        errno = static_cast<int>(-result);
        return -1;
    }
};

// The agent's own numbers are none for the program, which may close or overwrite any number that it does not
// know: it is told so, and the agent's file goes on under its number, or is out of the way before the program's
// comes.
template <ZorvEntryPoint* pEntry, typename Class, typename Pointer> struct OfClosing
{
    static int Call(int fd)
    {
        return OfUnwinder<pEntry, Class, Pointer>::Call(t_zorvState.m_isUnwinding ? fd
                                                                                  : ZorvUmaProgramsNumber(fd));
    }
};

// A shell asks for a number before it takes it, and puts back later what it found there.
template <ZorvEntryPoint* pEntry, typename Class, typename Pointer> struct OfNumbers;
template <ZorvEntryPoint* pEntry, typename Class, typename... P>
struct OfNumbers<pEntry, Class, int (*)(int, P...)>
{
    static int Call(int fd, P... arguments)
    {
        return OfClass<pEntry, Class, int (*)(int, P...)>::Call(ZorvUmaProgramsNumber(fd), arguments...);
    }
};

template <ZorvEntryPoint* pEntry, typename Class, typename Pointer> struct OfOverwriting;
template <ZorvEntryPoint* pEntry, typename Class, typename... P>
struct OfOverwriting<pEntry, Class, int (*)(int, int, P...)>
{
    static int Call(int from, int to, P... arguments)
    {
        // dup3 refuses two equal numbers whatever they are, and flags that it does not know.
        constexpr bool hasFlags = sizeof...(P) != 0;
        const bool isRefused = (from == to && hasFlags) || ((0 | ... | arguments) & ~O_CLOEXEC) != 0;
        if (!isRefused)
            from = ZorvUmaProgramsNumber(from);
        if (ZORV_UNLIKELY(ZorvUmaProgramsNumber(to) != to) && !isRefused &&
            ZorvRawSyscall(SYS_fcntl, from, F_GETFD) >= 0)
            ZorvUmaVacate(to);
        return OfClass<pEntry, Class, int (*)(int, int, P...)>::Call(from, to, arguments...);
    }
};

// A wait for signals never takes the agent's own: the program would be told of a signal that nobody sent it.
template <ZorvEntryPoint* pEntry, typename Class, typename Pointer> struct OfSignals;
template <ZorvEntryPoint* pEntry, typename Class, typename... P>
struct OfSignals<pEntry, Class, int (*)(const sigset_t*, P...)>
{
    static int Call(const sigset_t* pSet, P... arguments)
    {
        sigset_t programs;
        return OfClass<pEntry, Class, int (*)(const sigset_t*, P...)>::Call(
            ZorvUmsProgramsSignals(pSet, &programs), arguments...);
    }
};

#define ZORV_SYSCALL(class, call, name, count)                                                                 \
    ZORV_INTERPOSE_SINGLE(OfClass, class, ZorvInterpose##call, name, count, AllOnes)
#define ZORV_SYSCALL_OR(class, call, name, count, failure)                                                     \
    ZORV_INTERPOSE_SINGLE(OfClass, class, ZorvInterpose##call, name, count, failure)
#define ZORV_SYSCALL_OF_SIGNALS(class, call, name, count)                                                      \
    ZORV_INTERPOSE_SINGLE(OfSignals, class, ZorvInterpose##call, name, count, AllOnes)
#define ZORV_SYSCALL_OF_UNWINDER(class, call, name, count)                                                     \
    using UnwinderCall##call = UnwinderCall<class, SYS_##name>;                                                \
    ZORV_INTERPOSE_SINGLE(OfUnwinder, UnwinderCall##call, ZorvInterpose##call, name, count, AllOnes)
#define ZORV_SYSCALL_OF_CLOSING(class, call, name, count)                                                      \
    using UnwinderCall##call = UnwinderCall<class, SYS_##name>;                                                \
    ZORV_INTERPOSE_SINGLE(OfClosing, UnwinderCall##call, ZorvInterpose##call, name, count, AllOnes)
#define ZORV_SYSCALL_OF_NUMBERS(class, call, name, count)                                                      \
    ZORV_INTERPOSE_SINGLE(OfNumbers, class, ZorvInterpose##call, name, count, AllOnes)
#define ZORV_SYSCALL_OF_OVERWRITING(class, call, name, count)                                                  \
    ZORV_INTERPOSE_SINGLE(OfOverwriting, class, ZorvInterpose##call, name, count, AllOnes)
#define ZORV_SYSCALL_VERSIONED(class, call, name, count, oldVersion, newVersion)                               \
    ZORV_INTERPOSE_VERSIONED(OfClass, class, ZorvInterpose##call, name, count, oldVersion, newVersion, AllOnes)
#include "ZorvUserModeTraceSyscall.def"

// ---- pipe2 -----------------------------------------------------------------------------------------------

// The unwinder tests memory through a pipe of its own; its numbers are out of the program's way like all of
// ours.
template <ZorvEntryPoint* pEntry, typename, typename Pointer> struct PipeOfUnwinder
{
    static int Call(int* pFds, int flags)
    {
        int result = OfClass<pEntry, Other, Pointer>::Call(pFds, flags);
        if (ZORV_UNLIKELY(t_zorvState.m_isUnwinding && result == 0))
            for (int i = 0; i < 2; i++)
                pFds[i] = g_unwindersPipe[i] = ZorvUmaKeepDescriptor(pFds[i]);
        return result;
    }
};

ZORV_INTERPOSE_SINGLE(PipeOfUnwinder, void, ZorvInterposePipe2, pipe2, 2, AllOnes)

// ---- close_range, closefrom ------------------------------------------------------------------------------

// Calls close(first, last, flags) for each stretch of the range that has no number of the agent's, while it
// succeeds.
template <typename Close> static int CloseAround(unsigned first, unsigned last, int flags, Close close)
{
    for (int own; (own = ZorvUmaNextOwnNumber(first, last)) >= 0; first = static_cast<unsigned>(own) + 1)
    {
        if (static_cast<unsigned>(own) == first)
            continue;
        int result = close(first, static_cast<unsigned>(own) - 1, flags);
        if (result != 0)
            return result;
        flags &= ~static_cast<int>(CLOSE_RANGE_UNSHARE); // which has been done
    }
    return first <= last ? close(first, last, flags) : 0;
}

template <ZorvEntryPoint* pEntry, typename, typename Pointer> struct RangeOfClosing
{
    static int Call(unsigned first, unsigned last, int flags)
    {
        auto pReal = reinterpret_cast<Pointer>(ZorvRealOf(pEntry));
        if (pReal == nullptr)
            return -1;
        // Ours are close-on-exec already, and what the kernel does not know it refuses.
        if (first > last || (flags & ~static_cast<int>(CLOSE_RANGE_UNSHARE)) != 0)
            return pReal(first, last, flags);
        return CloseAround(first, last, flags, pReal);
    }
};

ZORV_INTERPOSE_SINGLE(RangeOfClosing, void, ZorvInterposeCloseRange, close_range, 3, AllOnes)

template <ZorvEntryPoint* pEntry, typename, typename Pointer> struct AllOfClosing
{
    static void Call(int lowest)
    {
        auto closeRaw = [](unsigned first, unsigned last, int flags)
        { return static_cast<int>(ZorvRawSyscall(SYS_close_range, first, last, flags)); };
        void* pReal = ZorvRealOf(pEntry);
        bool isKnown = pReal != nullptr && CloseAround(lowest < 0 ? 0 : lowest, UINT_MAX, 0, closeRaw) == 0;
        if (pReal != nullptr && !isKnown) // a kernel without ranges: what this closes is opened again
            reinterpret_cast<Pointer>(pReal)(lowest);
    }
};

ZORV_INTERPOSE_SINGLE(AllOfClosing, void, ZorvInterposeClosefrom, closefrom, 1, AllOnes)
