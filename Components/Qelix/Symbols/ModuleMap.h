// Which file lay where in a process, and when: the mappings of its metadata file.
#pragma once

#include "Reader/Damage.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qelix
{

struct Mapping
{
    uint64_t m_start = 0;
    uint64_t m_end = 0;
    uint64_t m_time = 0; // it was there then; since when and until when is not told
    std::string m_path;
};

struct ModuleMap
{
    std::vector<Mapping> m_mappings; // by start; those of one place by time
    bool m_isStable = true;          // no place has held two files
    std::optional<Damage> m_damage;
};

// Every dlopen writes the whole map again: a mapping that is there already is not added twice, and neighbours
// of one file in one listing are one mapping.
void AddMapping(ModuleMap* pMap, Mapping mapping);
void SettleMap(ModuleMap* pMap); // after the last one

// An empty path, a missing file and a damaged one give what can be had.
ModuleMap ReadModuleMap(const std::string& path);

// What lay at the address at that time: the last file seen there before it, else the first one after it. Null
// when nothing did.
const Mapping* FindMapping(const ModuleMap& map, uint64_t address, uint64_t time);

} // namespace qelix
