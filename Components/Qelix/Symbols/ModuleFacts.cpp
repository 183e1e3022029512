#include "Symbols/ModuleFacts.h"

#include <algorithm>
#include <fmt/format.h>
#include <tuple>

namespace qelix
{
namespace
{

ModuleFacts FactsOf(const Symbolizer& symbolizer, const std::string& path, const Module& module)
{
    const SymbolFile& file = *module.m_pFile;
    ModuleFacts facts{path, module.m_match, file.m_buildId};
    const auto noted = symbolizer.m_recorded.m_buildIds.find(path);
    facts.m_recordedBuildId = noted != symbolizer.m_recorded.m_buildIds.end() ? noted->second : "";
    facts.m_hasSymbols = !file.m_symbols.empty();
    facts.m_hasLocalSymbols = file.m_hasLocalSymbols;
    facts.m_hasLines = !file.m_debugInfo.m_units.empty();
    for (const auto& [address, place] : module.m_places)
    {
        ++facts.m_addresses;
        facts.m_named += place.m_isNamed ? 1 : 0;
        facts.m_withLine += symbolizer.m_lines[place.m_lines.front()].m_line != 0 ? 1 : 0;
    }
    return facts;
}

// Where the system looks for what was stripped.
std::string DebugFileHint(const ModuleFacts& module)
{
    return module.m_buildId.size() < 4
               ? "it has no build-id to find a separate debug file by; link with --build-id"
               : fmt::format("install its debug symbols, as /usr/lib/debug/.build-id/{}/{}.debug",
                             module.m_buildId.substr(0, 2), module.m_buildId.substr(2));
}

} // namespace

std::vector<ModuleFacts> ModulesOf(const Symbolizer& symbolizer)
{
    std::vector<ModuleFacts> modules;
    for (const auto& [path, module] : symbolizer.m_modules)
    {
        modules.push_back(FactsOf(symbolizer, path, module));
    }
    std::sort(modules.begin(), modules.end(),
              [](const ModuleFacts& a, const ModuleFacts& b)
              { return std::tie(b.m_addresses, a.m_path) < std::tie(a.m_addresses, b.m_path); });
    return modules;
}

std::vector<std::string> RemarksOn(const ModuleFacts& module)
{
    std::vector<std::string> remarks;
    if (const char* pText = MatchText(module.m_match))
    {
        remarks.push_back(pText);
    }
    const bool isFile = module.m_match == ZORV_FILE_SAME || module.m_match == ZORV_FILE_NEWER ||
                        module.m_match == ZORV_FILE_CHANGED;
    if (!isFile || module.m_path == ZORV_VDSO)
    {
        return remarks;
    }
    if (!module.m_hasLocalSymbols && module.m_named < module.m_addresses)
    {
        remarks.push_back((module.m_hasSymbols ? "stripped, has only the names that it exports; "
                                               : "stripped, has no names; ") +
                          DebugFileHint(module));
    }
    else if (!module.m_hasLines)
    {
        remarks.push_back("no debug information, so no lines; compile with -g, or " + DebugFileHint(module));
    }
    return remarks;
}

} // namespace qelix
