// execs FORM FILE ENVIRONMENT ARGUMENTS...: replaces itself by FILE, with one function of the exec family.
// ENVIRONMENT holds entries with ';' between them; "null" is no environment at all, "-" the process's own.
// ARGUMENTS are those of the new program, its name included; "null" alone is no vector at all.
#include "process.h"

extern char** environ;

#define UNTOUCHED 4242
#define MAX_ENTRIES 64

static char* g_entries[MAX_ENTRIES];

static char** EnvironmentOf(char* pText)
{
    int count = 0;
    if (strcmp(pText, "null") == 0)
    {
        return NULL;
    }
    if (strcmp(pText, "-") == 0)
    {
        return environ;
    }
    for (char* pEntry = strtok(pText, ";"); pEntry; pEntry = strtok(NULL, ";"))
    {
        g_entries[count++] = pEntry;
    }
    return g_entries;
}

static int Execl(const char* pFile, char** a)
{
    return execl(pFile, a[0], a[1], a[1] ? a[2] : NULL, NULL);
}

static int Execlp(const char* pFile, char** a)
{
    return execlp(pFile, a[0], a[1], a[1] ? a[2] : NULL, NULL);
}

// The environment stands behind the terminating null, wherever that is.
static int Execle(const char* pFile, char** a, char** e)
{
    return !a[1]   ? execle(pFile, a[0], NULL, e)
           : !a[2] ? execle(pFile, a[0], a[1], NULL, e)
                   : execle(pFile, a[0], a[1], a[2], NULL, e);
}

static int Exec(const char* pForm, const char* pFile, char** ppArgv, char** ppEnv)
{
    if (strcmp(pForm, "execv") == 0)
    {
        return execv(pFile, ppArgv);
    }
    if (strcmp(pForm, "execvp") == 0)
    {
        return execvp(pFile, ppArgv);
    }
    if (strcmp(pForm, "execve") == 0)
    {
        return execve(pFile, ppArgv, ppEnv);
    }
    if (strcmp(pForm, "execvpe") == 0)
    {
        return execvpe(pFile, ppArgv, ppEnv);
    }
    if (strcmp(pForm, "fexecve") == 0)
    {
        return fexecve(strcmp(pFile, "closed") == 0 ? -1 : open(pFile, O_RDONLY | O_CLOEXEC), ppArgv, ppEnv);
    }
    if (strcmp(pForm, "fexecve_unopened") == 0)
    {
        return fexecve(77, ppArgv, ppEnv);
    }
    if (strcmp(pForm, "execl") == 0)
    {
        return Execl(pFile, ppArgv);
    }
    if (strcmp(pForm, "execlp") == 0)
    {
        return Execlp(pFile, ppArgv);
    }
    if (strcmp(pForm, "execle") == 0)
    {
        return Execle(pFile, ppArgv, ppEnv);
    }
    abort();
}

int main(int count, char** ppArguments)
{
    Check(count >= 4, "usage");
    char** ppEnv = EnvironmentOf(ppArguments[3]);
    char** ppArgv = count > 4 && strcmp(ppArguments[4], "null") == 0 ? NULL : &ppArguments[4];
    errno = UNTOUCHED;
    int result = Exec(ppArguments[1], ppArguments[2], ppArgv, ppEnv);
    int error = errno;
    Say("failed %d errno %d", result, error);
    return 80;
}
