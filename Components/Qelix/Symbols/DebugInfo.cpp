#include "Symbols/DebugInfo.h"

#include <algorithm>
#include <dwarf.h>
#include <elfutils/libdwfl.h>
#include <filesystem>

namespace qelix
{
namespace
{

DebugUnit* UnitAt(DebugInfo* pInfo, uint64_t address)
{
    const std::vector<UnitRange>& ranges = pInfo->m_ranges;
    const auto after =
        std::upper_bound(ranges.begin(), ranges.end(), address,
                         [](uint64_t value, const UnitRange& range) { return value < range.m_begin; });
    if (after == ranges.begin() || address >= std::prev(after)->m_end)
    {
        return nullptr;
    }
    return &pInfo->m_units[std::prev(after)->m_unit];
}

Dwarf_Word NumberOf(Dwarf_Die* pDie, unsigned name)
{
    Dwarf_Attribute attribute;
    Dwarf_Word value = 0;
    return dwarf_attr(pDie, name, &attribute) != nullptr && dwarf_formudata(&attribute, &value) == 0 ? value
                                                                                                     : 0;
}

// "/src/lib/a.h" of "../lib/a.h" in "/src/app": each unit names a file from where it was compiled.
std::string PlainPath(const char* pFolder, const char* pText)
{
    const std::filesystem::path folder = pFolder == nullptr ? "" : pFolder;
    return (folder / pText).lexically_normal();
}

// Millions of rows share a few texts, each of which is one unit's.
uint32_t SourceId(DebugInfo* pInfo, const char* pFolder, const char* pText)
{
    if (pText == nullptr)
    {
        return 0;
    }
    const auto [known, isNewText] = pInfo->m_sourceIdOfText.emplace(pText, 0);
    if (isNewText)
    {
        const auto next = static_cast<uint32_t>(pInfo->m_sources.size());
        const auto [at, isNew] = pInfo->m_sourceIds.emplace(PlainPath(pFolder, pText), next);
        if (isNew)
        {
            pInfo->m_sources.push_back(at->first);
        }
        known->second = at->second;
    }
    return known->second;
}

void SetCallLine(DebugInfo* pInfo, DebugUnit* pUnit, Dwarf_Die* pInlined, DebugFrame* pCaller)
{
    Dwarf_Files* pFiles = nullptr;
    size_t count = 0;
    const Dwarf_Word file = NumberOf(pInlined, DW_AT_call_file);
    if (dwarf_getsrcfiles(&pUnit->m_die, &pFiles, &count) == 0 && file < count)
    {
        pCaller->m_source = SourceId(pInfo, pUnit->m_pFolder, dwarf_filesrc(pFiles, file, nullptr, nullptr));
        pCaller->m_line = static_cast<uint32_t>(NumberOf(pInlined, DW_AT_call_line));
    }
}

void SetLineAt(DebugInfo* pInfo, DebugUnit* pUnit, uint64_t address, DebugFrame* pFrame)
{
    Dwarf_Line* pLine = dwarf_getsrc_die(&pUnit->m_die, address);
    int number = 0;
    if (pLine != nullptr && dwarf_lineno(pLine, &number) == 0 && number > 0)
    {
        pFrame->m_source = SourceId(pInfo, pUnit->m_pFolder, dwarf_linesrc(pLine, nullptr, nullptr));
        pFrame->m_line = static_cast<uint32_t>(number);
    }
}

const char* FolderOf(Dwarf_Die* pUnit)
{
    Dwarf_Attribute attribute;
    return dwarf_attr(pUnit, DW_AT_comp_dir, &attribute) != nullptr ? dwarf_formstring(&attribute) : nullptr;
}

// A function's code refers to where the function was described, if that is elsewhere.
Dwarf_Die DescriptionOf(Dwarf_Die* pDie)
{
    Dwarf_Attribute attribute;
    Dwarf_Die origin;
    return dwarf_attr(pDie, DW_AT_abstract_origin, &attribute) != nullptr &&
                   dwarf_formref_die(&attribute, &origin) != nullptr
               ? origin
               : *pDie;
}

} // namespace

// What a unit says it covers: the index that some compilers write is missing from the files of others.
DebugInfo OpenDebugInfo(Dwfl_Module* pModule, uint64_t fileBias)
{
    DebugInfo info;
    Dwarf_Addr bias = 0;
    info.m_pDwarf = dwfl_module_getdwarf(pModule, &bias);
    info.m_shift = bias - fileBias;
    Dwarf_Die* pUnit = nullptr;
    while (info.m_pDwarf != nullptr && (pUnit = dwfl_module_nextcu(pModule, pUnit, &bias)) != nullptr)
    {
        ForRanges(pUnit,
                  [&info](uint64_t begin, uint64_t end) {
                      info.m_ranges.push_back({begin, end, info.m_units.size()});
                  });
        info.m_units.push_back({*pUnit, FolderOf(pUnit), false, {}});
    }
    std::sort(info.m_ranges.begin(), info.m_ranges.end(),
              [](const UnitRange& a, const UnitRange& b) { return a.m_begin < b.m_begin; });
    return info;
}

std::vector<DebugFrame> DebugFramesAt(DebugInfo* pInfo, uint64_t address)
{
    std::vector<DebugFrame> frames;
    const uint64_t inInfo = address - pInfo->m_shift;
    DebugUnit* pUnit = UnitAt(pInfo, inInfo);
    if (pUnit == nullptr)
    {
        return frames;
    }
    if (!pUnit->m_isRead)
    {
        pUnit->m_table = ReadUnitTable(&pUnit->m_die);
        pUnit->m_isRead = true;
    }
    frames.push_back({});
    SetLineAt(pInfo, pUnit, inInfo, &frames.back());
    for (uint32_t at = ScopeAt(pUnit->m_table, inInfo); at != ZORV_NO_SCOPE;)
    {
        const Scope& scope = pUnit->m_table.m_scopes[at];
        Dwarf_Die die;
        if (dwarf_offdie(pInfo->m_pDwarf, scope.m_dieOffset, &die) == nullptr)
        {
            break;
        }
        frames.back().m_function = DescriptionOf(&die);
        frames.back().m_isInlined = dwarf_tag(&die) == DW_TAG_inlined_subroutine;
        at = scope.m_parent;
        if (at != ZORV_NO_SCOPE)
        {
            frames.push_back({});
            SetCallLine(pInfo, pUnit, &die, &frames.back());
        }
    }
    return frames;
}

SourcePlace PlaceOfFunction(DebugInfo* pInfo, Dwarf_Die* pFunction)
{
    int line = 0;
    Dwarf_Die unit;
    const char* pText = dwarf_decl_file(pFunction);
    if (pText == nullptr || dwarf_diecu(pFunction, &unit, nullptr, nullptr) == nullptr)
    {
        return {};
    }
    const uint32_t source = SourceId(pInfo, FolderOf(&unit), pText);
    return {source, dwarf_decl_line(pFunction, &line) == 0 ? static_cast<uint32_t>(line) : 0};
}

} // namespace qelix
