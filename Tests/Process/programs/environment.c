// environment [setenv|putenv] NAME VALUE OVERWRITE...: changes the environment and says what LD_PRELOAD became.
#include "process.h"

#define UNTOUCHED 4242

static void Tell(const char* pWhat, int result, int error)
{
    const char* pPreload = getenv("LD_PRELOAD");
    const char* pOther = getenv("ZORV_TEST_OTHER");
    Say("%s %d errno %d preload %s other %s", pWhat, result, error, pPreload ? pPreload : "-",
        pOther ? pOther : "-");
}

#define CHANGE(what, call)                                                                                     \
    do                                                                                                         \
    {                                                                                                          \
        errno = UNTOUCHED;                                                                                     \
        int result_ = (call);                                                                                  \
        int error_ = errno;                                                                                    \
        Tell(what, result_, error_);                                                                           \
    } while (0)

int main(int count, char** ppArguments)
{
    static char entry[] = "LD_PRELOAD=p.so";
    static char bare[] = "LD_PRELOAD=";
    static char removing[] = "LD_PRELOAD";
    static char other[] = "ZORV_TEST_OTHER=put";
    static char withAgent[8192];
    Check(count == 2, "usage");
    snprintf(withAgent, sizeof(withAgent), "LD_PRELOAD=q.so:%s:r.so", ppArguments[1]);
    char* volatile pNull = NULL;
    CHANGE("set", setenv("LD_PRELOAD", "x.so", 1));
    CHANGE("keep", setenv("LD_PRELOAD", "y.so", 0));
    CHANGE("agent", setenv("LD_PRELOAD", withAgent + 11, 1));
    CHANGE("empty", setenv("LD_PRELOAD", "", 1));
    CHANGE("other", setenv("ZORV_TEST_OTHER", "LD_PRELOAD=z.so", 1));
    CHANGE("longer", setenv("LD_PRELOAD_NOT", "z.so", 1));
    CHANGE("no name", setenv("", "z.so", 1));
    CHANGE("bad name", setenv("LD_PRELOAD=", "z.so", 1));
    CHANGE("null name", setenv(pNull, "z.so", 1));
    unsetenv("LD_PRELOAD");
    CHANGE("set new", setenv("LD_PRELOAD", "new.so", 0));
    CHANGE("put", putenv(entry));
    Say("same string %d", getenv("LD_PRELOAD") == entry + 11);
    CHANGE("put agent", putenv(withAgent));
    Say("same string %d", getenv("LD_PRELOAD") == withAgent + 11);
    CHANGE("put bare", putenv(bare));
    CHANGE("put other", putenv(other));
    CHANGE("removed", putenv(removing));
    return 90;
}
