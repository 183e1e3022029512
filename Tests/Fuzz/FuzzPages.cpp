// A whole session, as FuzzSession.cpp takes it, as a page that its names must not break out of.
#include "FuzzFolder.h"

#include "Pages/PageFile.h"
#include "Pages/Pages.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t size)
{
    WriteFuzzSession(TextOf(pData, size));
    const std::string page =
        qelix::ReportPage(qelix::ReadSessionFacts(FuzzSessionPath(), {.m_withStacks = true}));
    std::size_t ends = 0;
    for (std::size_t at = 0; (at = page.find("</script", at)) != std::string::npos; ++at)
    {
        ++ends;
    }
    if (ends != 2 || page.size() > qelix::ZORV_LARGEST_PAGE)
    {
        abort();
    }
    return 0;
}
