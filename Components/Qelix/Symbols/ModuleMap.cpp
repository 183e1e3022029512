#include "Symbols/ModuleMap.h"

#include "Reader/RecordFile.h"

#include <algorithm>
#include <tuple>

namespace qelix
{
namespace
{

bool Overlap(const Mapping& a, const Mapping& b)
{
    return a.m_start < b.m_end && b.m_start < a.m_end;
}

bool Holds(const Mapping& mapping, uint64_t address)
{
    return address >= mapping.m_start && address < mapping.m_end;
}

} // namespace

void AddMapping(ModuleMap* pMap, Mapping mapping)
{
    std::vector<Mapping>& mappings = pMap->m_mappings;
    if (!mappings.empty())
    {
        Mapping& last = mappings.back();
        if (last.m_end == mapping.m_start && last.m_path == mapping.m_path && last.m_time == mapping.m_time)
        {
            last.m_end = mapping.m_end;
            return;
        }
    }
    mappings.push_back(std::move(mapping));
}

void SettleMap(ModuleMap* pMap)
{
    std::vector<Mapping>& mappings = pMap->m_mappings;
    std::sort(mappings.begin(), mappings.end(),
              [](const Mapping& a, const Mapping& b)
              { return std::tie(a.m_start, a.m_end, a.m_time) < std::tie(b.m_start, b.m_end, b.m_time); });
    const auto isAgain = [](const Mapping& a, const Mapping& b)
    { return a.m_start == b.m_start && a.m_end == b.m_end && a.m_path == b.m_path; };
    mappings.erase(std::unique(mappings.begin(), mappings.end(), isAgain), mappings.end());
    for (std::size_t i = 1; i < mappings.size(); ++i)
    {
        pMap->m_isStable = pMap->m_isStable && !Overlap(mappings[i - 1], mappings[i]);
    }
}

ModuleMap ReadModuleMap(const std::string& path)
{
    ModuleMap map;
    if (path.empty())
    {
        return map;
    }
    const auto pFile = OpenRecordFile(path);
    Record record;
    while (NextRecord(pFile.get(), &record))
    {
        if (const auto* pMmap = std::get_if<MmapRecord>(&record.m_body))
        {
            AddMapping(&map, {pMmap->m_fixed.m_startAddress, pMmap->m_fixed.m_endAddress, pMmap->m_fixed.m_time,
                              pMmap->m_path});
        }
    }
    map.m_damage = pFile->m_damage;
    SettleMap(&map);
    return map;
}

const Mapping* FindMapping(const ModuleMap& map, uint64_t address, uint64_t time)
{
    const std::vector<Mapping>& mappings = map.m_mappings;
    if (map.m_isStable)
    {
        const auto after =
            std::upper_bound(mappings.begin(), mappings.end(), address,
                             [](uint64_t value, const Mapping& mapping) { return value < mapping.m_start; });
        return after != mappings.begin() && Holds(*std::prev(after), address) ? &*std::prev(after) : nullptr;
    }
    const Mapping* pBefore = nullptr;
    const Mapping* pAfter = nullptr;
    for (const Mapping& mapping : mappings)
    {
        if (!Holds(mapping, address))
        {
            continue;
        }
        if (mapping.m_time <= time && (pBefore == nullptr || pBefore->m_time <= mapping.m_time))
        {
            pBefore = &mapping;
        }
        if (mapping.m_time > time && (pAfter == nullptr || mapping.m_time < pAfter->m_time))
        {
            pAfter = &mapping;
        }
    }
    return pBefore != nullptr ? pBefore : pAfter;
}

} // namespace qelix
