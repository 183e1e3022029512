// Has a thread before the agent's own constructor has run.
#include "blackbox.h"

int EarlyThreadsStarted(void);

int main(void)
{
    Say("started %d", EarlyThreadsStarted());
    return 0;
}
