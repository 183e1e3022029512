// Runs the agent's constructor again, and loads the object again.
#include "blackbox.h"
#include <dlfcn.h>

int main(int count, char** ppArguments)
{
    Check(count == 2, "usage");
    void (*pInit)(void) = (void (*)(void))dlsym(RTLD_DEFAULT, "ZorvUmaInit");
    if (pInit)
    {
        pInit();
    }
    void* pAgain = dlopen(ppArguments[1], RTLD_NOW);
    Check(pAgain != NULL, "dlopen");
    Check(dlclose(pAgain) == 0, "dlclose");
    Say("constructor %s", pInit ? "exported" : "hidden");
    return 0;
}
