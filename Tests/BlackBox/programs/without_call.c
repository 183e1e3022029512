// without_call NUMBER PROGRAM ARGUMENTS...: runs the program where the kernel does not know that system call.
#include "blackbox.h"
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <sys/prctl.h>

int main(int count, char** ppArguments)
{
    Check(count > 2, "usage");
    struct sock_filter steps[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, (unsigned)atoi(ppArguments[1]), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    struct sock_fprog filter = {sizeof(steps) / sizeof(steps[0]), steps};
    Check(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0, "privileges");
    Check(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0, "filter");
    execv(ppArguments[2], ppArguments + 2);
    Check(0, "exec");
}
