// The block of POSIX shared memory (shm_overview(7)) through which the controller steers its agents.
// The controller creates it zeroed, writes it while the program runs and removes its name at the end;
// an agent only reads it. To pause: set m_pauseId first, then m_isPause. A controller that has put
// QELIX_CONTROLLER_WAKES=1 into the configuration ends each change with a futex(2) FUTEX_WAKE of all who wait on
// the first four bytes; its agents look at the flags ten times a second only, others every 2 ms.
#pragma once

#include <cstddef>
#include <cstdint>

struct ZorvAgentSharedDetails
{
    uint8_t m_isPause; // non-zero: paused
    uint8_t m_isStop;  // non-zero: stop for good
    uint8_t m_unused[6];
    uint64_t m_pauseId; // names the pause that is on; 0 reads as no pause
};
using ZorvAgentSharedDetailsT = ZorvAgentSharedDetails;

struct ZorvAgentSharedInfo
{
    ZorvAgentSharedDetails m_umaFlags;  // the user-mode agent
    ZorvAgentSharedDetails m_omptFlags; // OpenMP agent
    ZorvAgentSharedDetails m_mpiFlags;  // MPI agent
    ZorvAgentSharedDetails m_gpuFlags;  // GPU agent
};
using ZorvAgentSharedInfoT = ZorvAgentSharedInfo;

static_assert(sizeof(ZorvAgentSharedDetails) == 16);
static_assert(offsetof(ZorvAgentSharedDetails, m_isPause) == 0);
static_assert(offsetof(ZorvAgentSharedDetails, m_isStop) == 1);
static_assert(offsetof(ZorvAgentSharedDetails, m_pauseId) == 8);
static_assert(sizeof(ZorvAgentSharedInfo) == 64);
static_assert(offsetof(ZorvAgentSharedInfo, m_umaFlags) == 0);
static_assert(offsetof(ZorvAgentSharedInfo, m_omptFlags) == 16);
static_assert(offsetof(ZorvAgentSharedInfo, m_mpiFlags) == 32);
static_assert(offsetof(ZorvAgentSharedInfo, m_gpuFlags) == 48);
