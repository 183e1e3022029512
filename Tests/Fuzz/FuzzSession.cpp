// A whole session, through everything that prints one: sections of the input, each behind its length in four
// bytes, are its files.
#include "FuzzFolder.h"

#include "Report/Report.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

namespace
{

constexpr const char* g_files[] = {"agent.conf",
                                   "session.json",
                                   ".log/log_host_42.txt",
                                   "trace/trace_host_42.umt",
                                   "sample/profile_host_42.ums",
                                   "metadata/metadata_host_42.meta"};

std::string_view TakeSection(std::string_view* pInput)
{
    uint32_t size = 0;
    std::memcpy(&size, pInput->data(), std::min(sizeof(size), pInput->size()));
    pInput->remove_prefix(std::min(sizeof(size), pInput->size()));
    const std::string_view section = pInput->substr(0, size);
    pInput->remove_prefix(section.size());
    return section;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t size)
{
    std::string_view input = TextOf(pData, size);
    for (const char* pFile : g_files)
    {
        WriteFuzzFile(pFile, TakeSection(&input));
    }
    const qelix::SessionFacts session = qelix::ReadSessionFacts(FuzzSessionPath(), {.m_withStacks = true});
    if (qelix::ReportText(session).empty() ||
        nlohmann::json::parse(qelix::ReportJson(session))["cpu"]["samples"] != qelix::SampleCount(session))
    {
        abort();
    }
    return 0;
}
