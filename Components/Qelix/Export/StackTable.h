// Every different stack of a session once: a tree of places from the outermost frame inwards.
#pragma once

#include "Symbols/Symbolizer.h"

#include <cstdint>
#include <set>
#include <unordered_map>
#include <vector>

namespace qelix
{

struct StackPlace
{
    const CodePlace* m_pPlace = nullptr;
    uint64_t m_address = 0; // where it was seen first
};

struct PlacedFrame
{
    uint32_t m_parent = 0;
    uint32_t m_place = 0;
};

struct StackTable
{
    std::vector<StackPlace> m_places;
    std::unordered_map<const CodePlace*, uint32_t> m_placeIds;
    std::vector<PlacedFrame> m_frames{{}};             // the first one is the root and no place
    std::unordered_map<uint64_t, uint32_t> m_children; // by parent and place
};

// The id of a stack, which is that of its innermost frame; 0: no frame. A parent's id is less than its child's.
uint32_t StackId(StackTable* pTable, ProcessSymbols* pSymbols, const std::vector<uint64_t>& stack,
                 uint64_t time, bool withAgentFrames);

// Places of a stack, outermost first.
std::vector<uint32_t> PlacesOfStack(const StackTable& table, uint32_t stack);

// Functions of a stack by the symbolizer's ids, outermost first, inlined ones included.
std::vector<uint32_t> FunctionsOfStack(const StackTable& table, uint32_t stack);

// The functions that stand in a stack, by id: a symbolizer knows those of whole files.
std::set<uint32_t> UsedFunctions(const StackTable& table);

} // namespace qelix
