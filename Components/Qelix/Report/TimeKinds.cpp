#include "Report/TimeKinds.h"

namespace qelix
{
namespace
{

constexpr TimeKindForm g_forms[] = {
    {"cpu", "CPU", '#', "\x1b[32m"},        {"lock", "lock", 'L', "\x1b[31m"},
    {"condition", "cond", 'c', "\x1b[33m"}, {"io", "I/O", 'I', "\x1b[36m"},
    {"sleep", "sleep", 's', "\x1b[34m"},    {"wait", "wait", 'w', "\x1b[35m"},
    {"rest", "rest", '.', "\x1b[2m"},
};
static_assert(std::size(g_forms) == ZORV_TIME_KIND_COUNT);

TimeKind KindOfPthreadCall(uint16_t subType)
{
    switch (subType)
    {
    case ZORV_PTHREAD_LOCK_MUTEX:
    case ZORV_PTHREAD_LOCK_RW:
    case ZORV_PTHREAD_LOCK_SPIN:
        return ZORV_TIME_LOCK;
    case ZORV_PTHREAD_WAIT_CV:
    case ZORV_PTHREAD_WAIT_BARRIER:
    case ZORV_PTHREAD_WAIT_SEMAPHORE:
        return ZORV_TIME_CONDITION;
    case ZORV_PTHREAD_JOIN:
        return ZORV_TIME_WAIT;
    default:
        return ZORV_TIME_REST;
    }
}

} // namespace

const TimeKindForm& FormOf(TimeKind kind)
{
    return g_forms[kind];
}

TimeKind TimeKindOf(const CallKind& kind)
{
    if (kind.m_recType == ZORV_UMT_RECORD_PTHREAD)
    {
        return KindOfPthreadCall(kind.m_subType);
    }
    switch (kind.m_subType)
    {
    case ZORV_SYSCALL_TYPE_SLEEP:
        return ZORV_TIME_SLEEP;
    case ZORV_SYSCALL_TYPE_EVENT_WAIT:
        return ZORV_TIME_WAIT;
    case ZORV_SYSCALL_TYPE_RESOURCE_WAIT:
        return ZORV_TIME_LOCK;
    case ZORV_SYSCALL_TYPE_IO_SYNC:
    case ZORV_SYSCALL_TYPE_IO:
        return ZORV_TIME_IO;
    default:
        return ZORV_TIME_REST;
    }
}

} // namespace qelix
