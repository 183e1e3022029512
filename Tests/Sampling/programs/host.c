// A C program that loads a C++ library which throws: says which object unwinds, and what is in the global
// scope.
#include "sampled.h"

static void SayOwner(const char* pWhat, void* pAddress)
{
    Dl_info info = {0};
    Say("%s %s", pWhat, pAddress && dladdr(pAddress, &info) ? info.dli_fname : "nowhere");
}

int main(int count, char** ppArguments)
{
    SayOwner("global unw_backtrace", dlsym(RTLD_DEFAULT, "unw_backtrace"));
    SayOwner("global _Unwind_RaiseException", dlsym(RTLD_DEFAULT, "_Unwind_RaiseException"));
    void* pHandle = dlopen(ppArguments[count - 1], RTLD_NOW | RTLD_LOCAL);
    Check(pHandle != NULL, "dlopen");
    SayOwner("module's unwinder", ((void* (*)(void))dlsym(pHandle, "UnwinderOfThrower"))());
    void (*pThrow)(int) = (void (*)(int))dlsym(pHandle, "ThrowAndTell");
    for (int i = 0; i < 5; ++i)
    {
        pThrow(i);
    }
    return 0;
}
