#include "Symbols/UnitTable.h"

#include <algorithm>
#include <dwarf.h>
#include <tuple>

namespace qelix
{
namespace
{

constexpr unsigned ZORV_MOST_NESTED = 500; // entries in each other; files made to harm may have any number

struct ScopeRange
{
    uint64_t m_begin = 0;
    uint64_t m_end = 0;
    unsigned m_depth = 0;
    uint32_t m_scope = ZORV_NO_SCOPE;
};

struct Walk
{
    std::vector<Scope> m_scopes;
    std::vector<ScopeRange> m_ranges;
};

bool MayHoldCode(int tag)
{
    switch (tag)
    {
    case DW_TAG_class_type:
    case DW_TAG_structure_type:
    case DW_TAG_union_type:
    case DW_TAG_namespace:
    case DW_TAG_module:
    case DW_TAG_subprogram:
    case DW_TAG_inlined_subroutine:
    case DW_TAG_lexical_block:
    case DW_TAG_with_stmt:
    case DW_TAG_catch_block:
    case DW_TAG_try_block:
        return true;
    default:
        return false;
    }
}

// The scope that this entry's children are in: its own where it has code, else the enclosing one.
uint32_t EnterScope(Walk* pWalk, Dwarf_Die* pDie, uint32_t enclosing, unsigned depth)
{
    const int tag = dwarf_tag(pDie);
    if (tag != DW_TAG_subprogram && tag != DW_TAG_inlined_subroutine)
    {
        return enclosing;
    }
    const auto scope = static_cast<uint32_t>(pWalk->m_scopes.size());
    bool hasCode = false;
    ForRanges(pDie,
              [&](uint64_t begin, uint64_t end)
              {
                  pWalk->m_ranges.push_back({begin, end, depth, scope});
                  hasCode = true;
              });
    if (!hasCode)
    {
        return enclosing;
    }
    // What encloses a function that is no inlined one is where it was written, not what called it.
    const uint32_t parent = tag == DW_TAG_inlined_subroutine ? enclosing : ZORV_NO_SCOPE;
    pWalk->m_scopes.push_back({parent, dwarf_dieoffset(pDie)});
    return scope;
}

void WalkChildren(Walk* pWalk, Dwarf_Die* pParent, uint32_t enclosing, unsigned depth)
{
    Dwarf_Die die;
    if (depth == ZORV_MOST_NESTED || dwarf_child(pParent, &die) != 0)
    {
        return;
    }
    for (;;)
    {
        if (MayHoldCode(dwarf_tag(&die)))
        {
            WalkChildren(pWalk, &die, EnterScope(pWalk, &die, enclosing, depth), depth + 1);
        }
        Dwarf_Die next;
        if (dwarf_siblingof(&die, &next) != 0 || dwarf_dieoffset(&next) <= dwarf_dieoffset(&die))
        {
            return; // the last one, or a link that would lead in circles
        }
        die = next;
    }
}

void Start(std::vector<ScopeStart>* pStarts, uint64_t address, uint32_t scope)
{
    if (!pStarts->empty() && pStarts->back().m_address == address)
    {
        pStarts->back().m_scope = scope;
    }
    else
    {
        pStarts->push_back({address, scope});
    }
}

void EndUpTo(std::vector<ScopeStart>* pStarts, std::vector<ScopeRange>* pOpen, uint64_t address)
{
    while (!pOpen->empty() && pOpen->back().m_end <= address)
    {
        const uint64_t end = pOpen->back().m_end;
        pOpen->pop_back();
        Start(pStarts, end, pOpen->empty() ? ZORV_NO_SCOPE : pOpen->back().m_scope);
    }
}

// Inner ranges lie in outer ones; of each address the innermost is wanted.
std::vector<ScopeStart> Flattened(std::vector<ScopeRange> ranges)
{
    std::sort(ranges.begin(), ranges.end(),
              [](const ScopeRange& a, const ScopeRange& b)
              { return std::tie(a.m_begin, a.m_depth) < std::tie(b.m_begin, b.m_depth); });
    std::vector<ScopeStart> starts;
    std::vector<ScopeRange> open;
    for (ScopeRange range : ranges)
    {
        EndUpTo(&starts, &open, range.m_begin);
        range.m_end = open.empty() ? range.m_end : std::min(range.m_end, open.back().m_end);
        Start(&starts, range.m_begin, range.m_scope);
        open.push_back(range);
    }
    EndUpTo(&starts, &open, UINT64_MAX);
    return starts;
}

} // namespace

UnitTable ReadUnitTable(Dwarf_Die* pUnit)
{
    Walk walk;
    WalkChildren(&walk, pUnit, ZORV_NO_SCOPE, 0);
    return {std::move(walk.m_scopes), Flattened(std::move(walk.m_ranges))};
}

uint32_t ScopeAt(const UnitTable& table, uint64_t address)
{
    const auto after =
        std::upper_bound(table.m_starts.begin(), table.m_starts.end(), address,
                         [](uint64_t value, const ScopeStart& start) { return value < start.m_address; });
    return after == table.m_starts.begin() ? ZORV_NO_SCOPE : std::prev(after)->m_scope;
}

} // namespace qelix
