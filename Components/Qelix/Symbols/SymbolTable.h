// The linker's symbols of one file: functions by address in the file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct Dwfl_Module;

namespace qelix
{

constexpr uint32_t ZORV_NO_FUNCTION = 0xFFFFFFFF;

struct Symbol
{
    uint64_t m_address = 0;
    uint64_t m_end = 0;
    std::string m_name;                     // as linked, without a version
    uint32_t m_function = ZORV_NO_FUNCTION; // of the file's functions, once it has been asked for
};

// Sorted by address, the plainest name of each. bias: of the module's addresses over those in the file.
// *pHasLocal: there are some that no other file can link to.
std::vector<Symbol> ReadSymbols(Dwfl_Module* pModule, uint64_t bias, bool* pHasLocal);

// Null when no function holds the address.
Symbol* FindSymbol(std::vector<Symbol>* pSymbols, uint64_t address);

} // namespace qelix
