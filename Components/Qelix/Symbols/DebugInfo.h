// The debug information of one file: functions, calls inlined in them, and source lines, by address in the
// file. Units are read when an address of theirs is asked for.
#pragma once

#include "Symbols/UnitTable.h"

#include <cstdint>
#include <elfutils/libdw.h>
#include <string>
#include <unordered_map>
#include <vector>

struct Dwfl_Module;

namespace qelix
{

struct DebugUnit
{
    Dwarf_Die m_die;
    const char* m_pFolder = nullptr; // where it was compiled; null: not known
    bool m_isRead = false;
    UnitTable m_table;
};

struct UnitRange
{
    uint64_t m_begin = 0;
    uint64_t m_end = 0;
    std::size_t m_unit = 0;
};

struct DebugInfo
{
    Dwarf* m_pDwarf = nullptr; // null: the file has none
    uint64_t m_shift = 0;      // added to an address of the debug information it is that in the file
    std::vector<DebugUnit> m_units;
    std::vector<UnitRange> m_ranges;                            // by address
    std::vector<std::string> m_sources = {""};                  // paths of source files
    std::unordered_map<std::string, uint32_t> m_sourceIds;      // indexes of these
    std::unordered_map<const char*, uint32_t> m_sourceIdOfText; // the same, as units name them
};

// fileBias: of the module's addresses over those in the file.
DebugInfo OpenDebugInfo(Dwfl_Module* pModule, uint64_t fileBias);

// One of the functions at an address, and the line of it that is executed there.
struct DebugFrame
{
    Dwarf_Die m_function; // where it is described: one entry, however often it is inlined
    bool m_isInlined = false;
    uint32_t m_source = 0; // an index; 0: not known
    uint32_t m_line = 0;   // 0: not known
};

// Innermost first; the one that really stands there last. Without a function the line alone may be known: one
// frame, whose function has no address.
std::vector<DebugFrame> DebugFramesAt(DebugInfo* pInfo, uint64_t address);

// Where the function is written.
struct SourcePlace
{
    uint32_t m_source = 0; // an index; 0: not known
    uint32_t m_line = 0;
};

SourcePlace PlaceOfFunction(DebugInfo* pInfo, Dwarf_Die* pFunction);

} // namespace qelix
