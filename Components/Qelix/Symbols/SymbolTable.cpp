#include "Symbols/SymbolTable.h"

#include <algorithm>
#include <elfutils/libdwfl.h>
#include <gelf.h>
#include <string_view>
#include <tuple>

namespace qelix
{
namespace
{

// Of the names of one address the plainest: write, not __write or write64.
bool IsPlainer(std::string_view a, std::string_view b)
{
    const auto rank = [](std::string_view name)
    { return std::tuple(name.find_first_not_of('_'), name.size(), name); };
    return rank(a) < rank(b);
}

// Assembly has symbols without a size: they reach to the next one, or are mere labels inside a function.
std::vector<Symbol> Settled(std::vector<Symbol> symbols)
{
    std::sort(symbols.begin(), symbols.end(),
              [](const Symbol& a, const Symbol& b) {
                  return a.m_address != b.m_address ? a.m_address < b.m_address : IsPlainer(a.m_name, b.m_name);
              });
    std::vector<Symbol> settled;
    uint64_t end = 0; // of the functions so far
    for (Symbol& symbol : symbols)
    {
        end = std::max(end, symbol.m_end);
        if (symbol.m_end == symbol.m_address && symbol.m_address < end)
        {
            continue;
        }
        if (!settled.empty() && settled.back().m_address == symbol.m_address)
        {
            settled.back().m_end = std::max(settled.back().m_end, symbol.m_end);
            continue;
        }
        settled.push_back(std::move(symbol));
    }
    for (std::size_t i = 0; i + 1 < settled.size(); ++i)
    {
        if (settled[i].m_end == settled[i].m_address)
        {
            settled[i].m_end = settled[i + 1].m_address;
        }
    }
    return settled;
}

bool IsCode(const GElf_Sym& symbol)
{
    const int type = GELF_ST_TYPE(symbol.st_info);
    return symbol.st_shndx != SHN_UNDEF && symbol.st_shndx != SHN_ABS &&
           (type == STT_FUNC || type == STT_GNU_IFUNC || (type == STT_NOTYPE && symbol.st_size == 0));
}

} // namespace

std::vector<Symbol> ReadSymbols(Dwfl_Module* pModule, uint64_t bias, bool* pHasLocal)
{
    std::vector<Symbol> symbols;
    const int count = dwfl_module_getsymtab(pModule);
    for (int i = 1; i < count; ++i)
    {
        GElf_Sym symbol;
        GElf_Addr address = 0;
        const char* pName = dwfl_module_getsym_info(pModule, i, &symbol, &address, nullptr, nullptr, nullptr);
        if (pName != nullptr && *pName != '\0' && IsCode(symbol))
        {
            const uint64_t inFile = address - bias;
            *pHasLocal = *pHasLocal || GELF_ST_BIND(symbol.st_info) == STB_LOCAL;
            const std::string name = pName;
            symbols.push_back({inFile, inFile + symbol.st_size, name.substr(0, name.find('@'))});
        }
    }
    return Settled(std::move(symbols));
}

Symbol* FindSymbol(std::vector<Symbol>* pSymbols, uint64_t address)
{
    auto at = std::upper_bound(pSymbols->begin(), pSymbols->end(), address,
                               [](uint64_t value, const Symbol& symbol) { return value < symbol.m_address; });
    // A symbol may lie inside another one: a few steps back find the one that reaches here.
    for (int steps = 0; steps < 8 && at != pSymbols->begin(); ++steps)
    {
        --at;
        if (address == at->m_address || address < at->m_end)
        {
            return &*at;
        }
    }
    return nullptr;
}

} // namespace qelix
