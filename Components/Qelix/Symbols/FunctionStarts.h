// Where the functions of a file begin when it has no symbols for them: its unwinding tables tell.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

struct Dwfl_Module;

namespace qelix
{

struct FunctionRange
{
    uint64_t m_begin = 0; // in the file's own address space
    uint64_t m_end = 0;
};

// By address. Empty when the file has no .eh_frame; a damaged one gives what lies before the damage.
std::vector<FunctionRange> ReadFunctionRanges(Dwfl_Module* pModule);

// Nothing when no function of the table holds the address.
std::optional<uint64_t> FunctionStart(const std::vector<FunctionRange>& ranges, uint64_t address);

} // namespace qelix
