// The block of shared memory through which a running session is steered. It must exist, zeroed, before the
// program starts: an agent that does not find it makes one of its own, which nobody would remove.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>

namespace qelix
{

// Makes the block and tells its name, which no other session on this machine has until the next boot.
std::string MakeControlBlock();

// Processes that have it mapped keep it.
void RemoveControlBlock(const std::string& name);

struct ControlBlock
{
    ControlBlock() : m_name(MakeControlBlock()) {}
    ControlBlock(const ControlBlock&) = delete;
    ControlBlock& operator=(const ControlBlock&) = delete;
    ~ControlBlock()
    {
        if (!m_isLeft)
        {
            RemoveControlBlock(m_name);
        }
    }

    std::string m_name;
    bool m_isLeft = false; // to whoever removes it later
};

enum CollectionState
{
    ZORV_COLLECTION_RUNNING,
    ZORV_COLLECTION_PAUSED,
    ZORV_COLLECTION_STOPPED, // for good
};

// Nothing: there is no such block, or none that is ours to steer.
std::optional<CollectionState> CollectionStateOf(const std::string& blockName);

// Each returns what was so before, when several steer at once the one that came first counts. They fail when
// there is no such block. A stopped collection stays stopped.
CollectionState PauseCollection(const std::string& blockName);
CollectionState ResumeCollection(const std::string& blockName);
CollectionState StopCollection(const std::string& blockName);

// Is an agent of this process at work under the block? Told from the process's mappings: those of a process of
// another user, and of one that is gone, say nothing.
bool HasBlockMapped(pid_t pid, const std::string& blockName);

// The block that an agent in this process has mapped; empty when there is none.
std::string BlockMappedBy(pid_t pid);

} // namespace qelix
