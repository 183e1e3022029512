// Preloaded ahead of the agent: whom it wants to kill is written to the file ZORV_TEST_KILLS, and nobody is
// killed.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/types.h>
#include <unistd.h>

int ZorvUmaKill(pid_t pid, int signal);

int ZorvUmaKill(pid_t pid, int signal)
{
    char line[64];
    int length = snprintf(line, sizeof(line), "%d %d\n", pid, signal);
    int fd = open(getenv("ZORV_TEST_KILLS"), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    int isWritten = write(fd, line, (size_t)length) == length;
    close(fd);
    return isWritten ? 0 : -1;
}
