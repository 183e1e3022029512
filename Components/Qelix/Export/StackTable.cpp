#include "Export/StackTable.h"

#include <algorithm>

namespace qelix
{
namespace
{

uint32_t PlaceId(StackTable* pTable, const CodePlace* pPlace, uint64_t address)
{
    const auto next = static_cast<uint32_t>(pTable->m_places.size());
    const auto [at, isNew] = pTable->m_placeIds.emplace(pPlace, next);
    if (isNew)
    {
        pTable->m_places.push_back({pPlace, address});
    }
    return at->second;
}

uint32_t FrameId(StackTable* pTable, uint32_t parent, uint32_t place)
{
    const auto next = static_cast<uint32_t>(pTable->m_frames.size());
    const auto [at, isNew] = pTable->m_children.emplace(uint64_t{parent} << 32 | place, next);
    if (isNew)
    {
        pTable->m_frames.push_back({parent, place});
    }
    return at->second;
}

} // namespace

uint32_t StackId(StackTable* pTable, ProcessSymbols* pSymbols, const std::vector<uint64_t>& stack,
                 uint64_t time, bool withAgentFrames)
{
    const std::size_t own = FirstOwnFrame(pSymbols, stack, time);
    uint32_t frame = 0;
    for (std::size_t i = stack.size(); i > (withAgentFrames ? 0 : own); --i)
    {
        const uint64_t address = FrameAddress(pSymbols, stack, i - 1, own, time);
        frame = FrameId(pTable, frame, PlaceId(pTable, &PlaceOf(pSymbols, address, time), address));
    }
    return frame;
}

std::vector<uint32_t> PlacesOfStack(const StackTable& table, uint32_t stack)
{
    std::vector<uint32_t> places;
    for (uint32_t frame = stack; frame != 0; frame = table.m_frames[frame].m_parent)
    {
        places.push_back(table.m_frames[frame].m_place);
    }
    std::reverse(places.begin(), places.end());
    return places;
}

std::vector<uint32_t> FunctionsOfStack(const StackTable& table, uint32_t stack)
{
    std::vector<uint32_t> functions;
    for (const uint32_t place : PlacesOfStack(table, stack))
    {
        const std::vector<uint32_t>& here = table.m_places[place].m_pPlace->m_functions;
        functions.insert(functions.end(), here.rbegin(), here.rend());
    }
    return functions;
}

std::set<uint32_t> UsedFunctions(const StackTable& table)
{
    std::set<uint32_t> used;
    for (const StackPlace& place : table.m_places)
    {
        used.insert(place.m_pPlace->m_functions.begin(), place.m_pPlace->m_functions.end());
    }
    return used;
}

} // namespace qelix
