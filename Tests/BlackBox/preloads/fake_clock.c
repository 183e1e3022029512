// Preloaded ahead of the agent: its clock goes on by ZORV_TEST_CLOCK_STEP nanoseconds with every look at it, so
// that every call that the agent times lasts exactly one step.
#include <stdint.h>
#include <stdlib.h>

uint64_t ZorvUmaGetTime(void);

uint64_t ZorvUmaGetTime(void)
{
    static uint64_t now = 1000000000;
    return __atomic_add_fetch(&now, strtoull(getenv("ZORV_TEST_CLOCK_STEP"), NULL, 10), __ATOMIC_SEQ_CST);
}
