// The block of shared memory through which a running session is steered. It must exist, zeroed, before the
// program starts: an agent that does not find it makes one of its own, which nobody would remove.
#pragma once

#include <string>

namespace qelix
{

struct ControlBlock
{
    ControlBlock(); // makes the block
    ControlBlock(const ControlBlock&) = delete;
    ControlBlock& operator=(const ControlBlock&) = delete;
    ~ControlBlock(); // removes its name; processes that have it mapped keep it

    std::string m_name;
};

// Once more, after the end of the session: an agent that started in a child process when the block was gone
// has made it anew.
void RemoveControlBlock(const std::string& name);

} // namespace qelix
