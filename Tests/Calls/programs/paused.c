// paused reads: one read of standard input after another. paused sleeps: a sleep of a millisecond.
#include "blackbox.h"
#include <time.h>

static void ReadAll(void)
{
    char byte;
    while (read(STDIN_FILENO, &byte, 1) == 1)
    {
    }
}

static void SleepOnce(void)
{
    const struct timespec millisecond = {0, 1000000};
    nanosleep(&millisecond, NULL);
}

int main(int count, char** ppArguments)
{
    Check(count == 2, "usage");
    if (strcmp(ppArguments[1], "reads") == 0)
    {
        ReadAll();
    }
    else
    {
        SleepOnce();
    }
    return 11;
}
