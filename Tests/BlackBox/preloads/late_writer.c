// Preloaded ahead of the agent: its writer thread comes to its loop only when the main thread already waits for
// its end, as on a machine that is too busy to run it.
#include "../programs/blackbox.h"

int ZorvUmaSetCurrentThreadName(const char* pName);

int ZorvUmaSetCurrentThreadName(const char* pName)
{
    (void)pName;
    WaitUntilParked(getpid(), NULL, 0);
    return 0;
}
