// Shows the agent's process-wide record from inside: its first BYTES as hex, then the string behind the pointer
// at each OFFSET ("-" for a null pointer). The test knows the layout.
#include "blackbox.h"
#include <dlfcn.h>

int main(int count, char** ppArguments)
{
    void* (*pGetProfileInfo)(void) = (void* (*)(void))dlsym(RTLD_DEFAULT, "ZorvUmaGetProfileInfo");
    Check(pGetProfileInfo != NULL, "look-up");
    const unsigned char* pInfo = pGetProfileInfo();
    if (!pInfo)
    {
        puts("no record");
        return 1;
    }
    for (long i = 0, size = atol(ppArguments[1]); i < size; ++i)
    {
        printf("%02x", pInfo[i]);
    }
    puts("");
    for (int i = 2; i < count; ++i)
    {
        const char* const* ppString = (const char* const*)(pInfo + atol(ppArguments[i]));
        puts(*ppString ? *ppString : "-");
    }
    return 0;
}
