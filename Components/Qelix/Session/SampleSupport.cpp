#include "Session/SampleSupport.h"

#include <dlfcn.h>
#include <fmt/format.h>

namespace qelix
{

std::string UnwinderProblem()
{
    // As the agent will open it in the program, with the same search path.
    void* pLibrary = dlopen("libunwind.so.8", RTLD_LAZY | RTLD_LOCAL);
    if (pLibrary == nullptr)
    {
        return fmt::format("call stacks need libunwind, and {}; install the package libunwind8", dlerror());
    }
    const bool isUsable = dlsym(pLibrary, "unw_backtrace") != nullptr;
    dlclose(pLibrary);
    return isUsable ? ""
                    : "the libunwind.so.8 of this machine has no unw_backtrace; install the package libunwind8";
}

} // namespace qelix
