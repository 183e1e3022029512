// A whole session, through everything that prints one: sections of the input, each behind its length in four
// bytes, are its files.
#include "FuzzFolder.h"

#include "Report/Report.h"

#include <cstdlib>
#include <nlohmann/json.hpp>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t size)
{
    WriteFuzzSession(TextOf(pData, size));
    const qelix::SessionFacts session = qelix::ReadSessionFacts(FuzzSessionPath(), {.m_withStacks = true});
    if (qelix::ReportText(session).empty() ||
        nlohmann::json::parse(qelix::ReportJson(session))["cpu"]["samples"] != qelix::SampleCount(session))
    {
        abort();
    }
    return 0;
}
