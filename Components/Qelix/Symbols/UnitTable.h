// What the debug information of one compilation unit says of its code: which function, inlined in which other
// ones, holds an address. The unit is walked once and laid out flat; an address is then a binary search.
#pragma once

#include <cstdint>
#include <elfutils/libdw.h>
#include <vector>

namespace qelix
{

constexpr uint32_t ZORV_NO_SCOPE = 0xFFFFFFFF;

// A function, or a place where one was inlined.
struct Scope
{
    uint32_t m_parent = ZORV_NO_SCOPE; // what it was inlined in
    uint64_t m_dieOffset = 0;
};

// From this address on the code is of this scope, up to where the next one begins.
struct ScopeStart
{
    uint64_t m_address = 0;
    uint32_t m_scope = ZORV_NO_SCOPE;
};

struct UnitTable
{
    std::vector<Scope> m_scopes;
    std::vector<ScopeStart> m_starts; // by address
};

// Addresses are those of the debug information.
UnitTable ReadUnitTable(Dwarf_Die* pUnit);

// The innermost scope at the address.
uint32_t ScopeAt(const UnitTable& table, uint64_t address);

// Hands each range of the code of this entry to take(begin, end); those of code that the linker dropped are
// left out, as it moves them to address 0 and others where nothing is.
template <typename Take> void ForRanges(Dwarf_Die* pDie, Take take)
{
    Dwarf_Addr base;
    Dwarf_Addr begin;
    Dwarf_Addr end;
    for (ptrdiff_t at = 0; (at = dwarf_ranges(pDie, at, &base, &begin, &end)) > 0;)
    {
        if (begin != 0 && begin < end)
        {
            take(begin, end);
        }
    }
}

} // namespace qelix
