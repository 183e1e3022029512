// A program that is bound to each old (first argument "old") and each new version of the interposed names and
// calls each once, or only the one of the second argument. It runs with a fake library behind the agent, so the
// arguments only have to be readable.
#include <stdint.h>
#include <string.h>

#include "Versions.h"

#define ZORV_WITHOUT_LOADER

typedef int Call(void*, void*, void*, void*);

#define ZORV_BIND(name, suffix)                                                                                \
    extern Call name##_##suffix;                                                                               \
    __asm__(".symver " #name "_" #suffix ", " #name "@" ZORV_VERSION_##suffix);
#define ZORV_MEMBER(function, name, old, new) ZORV_BIND(name, old) ZORV_BIND(name, new)
#define ZORV_SINGLE(function, name)
#include "Members.def"
#undef ZORV_MEMBER

extern Call pthread_mutex_lock;
extern Call pthread_exit;

static const struct
{
    const char* m_pName;
    Call* m_pOld;
    Call* m_pNew;
} g_rows[] = {
#define ZORV_MEMBER(function, name, old, new) {#name, name##_##old, name##_##new},
#include "Members.def"
    {"pthread_mutex_lock", pthread_mutex_lock, pthread_mutex_lock},
    {"pthread_exit", pthread_exit, pthread_exit},
};

// A deadline far away, an object and a name, in one.
static uint64_t g_object[64] = {4000000000, 0};

static int IsWanted(const char* pName, const char* pOnly)
{
    return pOnly != NULL ? strcmp(pName, pOnly) == 0 : strcmp(pName, "quick_exit") != 0;
}

int main(int argc, char** argv)
{
    const int isOld = argc > 1 && strcmp(argv[1], "old") == 0;
    for (unsigned i = 0; i < sizeof g_rows / sizeof g_rows[0]; i++)
    {
        if (IsWanted(g_rows[i].m_pName, argc > 2 ? argv[2] : NULL))
        {
            (isOld ? g_rows[i].m_pOld : g_rows[i].m_pNew)(g_object, g_object, g_object, g_object);
        }
    }
    return 1; // the last call ends the process
}
