#include "Session/ControlBlock.h"

#include "Session/Failure.h"
#include "Session/MachineFacts.h"
#include "ZorvAgentControlTypes.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <linux/futex.h>
#include <string_view>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace qelix
{
namespace
{

constexpr std::string_view ZORV_NAME_START = "/qelix-";
constexpr std::string_view ZORV_NAME_CHARACTERS = "0123456789abcdef-";
constexpr int ZORV_NAME_ATTEMPTS = 100;

// With the time, since process ids come back, and are unique in a pid namespace only: a name that an old
// session.json holds must never reach a new session.
std::string NewBlockName()
{
    return fmt::format("{}{}-{:x}", ZORV_NAME_START, getpid(), ReadClocks().m_realtimeNs);
}

// Names come from files that anybody can edit.
bool IsBlockName(const std::string& name)
{
    return name.starts_with(ZORV_NAME_START) && name.size() > ZORV_NAME_START.size() &&
           name.find_first_not_of(ZORV_NAME_CHARACTERS, ZORV_NAME_START.size()) == std::string::npos;
}

struct MappedBlock
{
    explicit MappedBlock(const std::string& name);
    MappedBlock(const MappedBlock&) = delete;
    MappedBlock& operator=(const MappedBlock&) = delete;
    ~MappedBlock();

    int m_fd = -1;
    ZorvAgentSharedDetails* m_pFlags = nullptr; // null: there is no such block
};

MappedBlock::MappedBlock(const std::string& name)
{
    m_fd = IsBlockName(name) ? shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0) : -1;
    struct stat status;
    // Behind the end of a shorter one an access would kill us.
    if (m_fd < 0 || fstat(m_fd, &status) != 0 || status.st_size != sizeof(ZorvAgentSharedInfo))
    {
        return;
    }
    void* pBlock = mmap(nullptr, sizeof(ZorvAgentSharedInfo), PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, 0);
    if (pBlock != MAP_FAILED)
    {
        m_pFlags = &static_cast<ZorvAgentSharedInfo*>(pBlock)->m_umaFlags;
    }
}

MappedBlock::~MappedBlock()
{
    if (m_pFlags != nullptr)
    {
        munmap(m_pFlags, sizeof(ZorvAgentSharedInfo));
    }
    if (m_fd >= 0)
    {
        close(m_fd); // and unlocks it
    }
}

uint8_t FlagIn(uint8_t* pFlag)
{
    return std::atomic_ref(*pFlag).load(std::memory_order_acquire);
}

CollectionState StateIn(ZorvAgentSharedDetails* pFlags)
{
    return FlagIn(&pFlags->m_isStop) != 0    ? ZORV_COLLECTION_STOPPED
           : FlagIn(&pFlags->m_isPause) != 0 ? ZORV_COLLECTION_PAUSED
                                             : ZORV_COLLECTION_RUNNING;
}

// An agent that sees the flag takes the id at once for the pause's own: so the id stands there before the flag,
// and stays when the pause is over. 0 would read as no pause.
void BeginPause(ZorvAgentSharedDetails* pFlags)
{
    std::atomic_ref id(pFlags->m_pauseId);
    const uint64_t next = id.load(std::memory_order_relaxed) + 1;
    id.store(next != 0 ? next : 1, std::memory_order_release);
    std::atomic_ref(pFlags->m_isPause).store(1, std::memory_order_seq_cst);
}

// The agents sleep on the first four bytes of the block, which hold both flags. futex(2)
void WakeAgents(ZorvAgentSharedDetails* pFlags)
{
    syscall(SYS_futex, pFlags, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

template <typename Action> CollectionState Steer(const std::string& blockName, const Action& action)
{
    const MappedBlock block(blockName);
    if (block.m_pFlags == nullptr)
    {
        throw Failure(
            ZORV_FAILURE_NOT_RUNNING,
            "the session has no shared memory to steer it by ({}); it has ended, or belongs to another "
            "user or machine",
            blockName.empty() ? "it names none" : blockName);
    }
    flock(block.m_fd, LOCK_EX);
    const CollectionState before = StateIn(block.m_pFlags);
    action(before, block.m_pFlags);
    WakeAgents(block.m_pFlags);
    return before;
}

// Calls take(rest) with what stands behind the folder of shared memory in each line that names some.
template <typename Take> void ForEachMappedBlock(pid_t pid, const Take& take)
{
    static const std::string folder = "/dev/shm";
    std::ifstream maps(fmt::format("/proc/{}/maps", pid));
    for (std::string line; std::getline(maps, line);)
    {
        const std::size_t at = line.find(folder + std::string(ZORV_NAME_START));
        if (at != std::string::npos)
        {
            const std::string path = line.substr(at + folder.size());
            take(path.substr(0, path.find(' '))); // " (deleted)" may follow
        }
    }
}

} // namespace

std::string MakeControlBlock()
{
    std::string name;
    int fd = -1;
    errno = EEXIST;
    for (int attempt = 0; fd < 0 && errno == EEXIST && attempt < ZORV_NAME_ATTEMPTS; ++attempt)
    {
        name = NewBlockName();
        fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    }
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
            shm_unlink(name.c_str());
        }
        throw Failure(
            ZORV_FAILURE_CANNOT_START,
            "cannot make the shared memory {}: {}; check that /dev/shm is mounted, writable and not full", name,
            strerror(error))
            .At("/dev/shm" + name);
    }
    return name;
}

void RemoveControlBlock(const std::string& name)
{
    if (IsBlockName(name))
    {
        shm_unlink(name.c_str());
    }
}

std::optional<CollectionState> CollectionStateOf(const std::string& blockName)
{
    const MappedBlock block(blockName);
    return block.m_pFlags != nullptr ? std::optional(StateIn(block.m_pFlags)) : std::nullopt;
}

CollectionState PauseCollection(const std::string& blockName)
{
    return Steer(blockName,
                 [](CollectionState before, ZorvAgentSharedDetails* pFlags)
                 {
                     if (before == ZORV_COLLECTION_RUNNING)
                     {
                         BeginPause(pFlags);
                     }
                 });
}

CollectionState ResumeCollection(const std::string& blockName)
{
    return Steer(blockName, [](CollectionState, ZorvAgentSharedDetails* pFlags)
                 { std::atomic_ref(pFlags->m_isPause).store(0, std::memory_order_release); });
}

CollectionState StopCollection(const std::string& blockName)
{
    return Steer(blockName, [](CollectionState, ZorvAgentSharedDetails* pFlags)
                 { std::atomic_ref(pFlags->m_isStop).store(1, std::memory_order_release); });
}

bool HasBlockMapped(pid_t pid, const std::string& blockName)
{
    bool isMapped = false;
    ForEachMappedBlock(pid, [&](const std::string& name) { isMapped = isMapped || name == blockName; });
    return isMapped;
}

std::string BlockMappedBy(pid_t pid)
{
    std::string found;
    ForEachMappedBlock(pid, [&found](const std::string& name) { found = name; });
    return found;
}

} // namespace qelix
