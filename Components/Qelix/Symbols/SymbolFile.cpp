#include "Symbols/SymbolFile.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <dwarf.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>
#include <gelf.h>
#include <tuple>

namespace qelix
{
namespace
{

constexpr uint64_t ZORV_PAGE = 4096;

const Dwfl_Callbacks g_callbacks = {dwfl_build_id_find_elf, dwfl_standard_find_debuginfo,
                                    dwfl_offline_section_address, nullptr};

struct Freer
{
    void operator()(void* pMemory) const
    {
        free(pMemory);
    }
};

void ReadSegments(SymbolFile* pFile)
{
    GElf_Addr bias;
    Elf* pElf = dwfl_module_getelf(pFile->m_pModule, &bias);
    size_t count = 0;
    if (pElf == nullptr || elf_getphdrnum(pElf, &count) != 0)
    {
        return;
    }
    pFile->m_bias = bias;
    for (size_t i = 0; i < count; ++i)
    {
        GElf_Phdr header;
        if (gelf_getphdr(pElf, static_cast<int>(i), &header) == nullptr || header.p_type != PT_LOAD ||
            (header.p_flags & PF_X) == 0)
        {
            continue;
        }
        const uint64_t begin = header.p_vaddr / ZORV_PAGE * ZORV_PAGE;
        const uint64_t end = (header.p_vaddr + header.p_filesz + ZORV_PAGE - 1) / ZORV_PAGE * ZORV_PAGE;
        pFile->m_segments.push_back({begin, end - begin});
    }
}

// Of the names of one address the plainest: write, not __write or write64.
bool IsPlainer(const std::string& a, const std::string& b)
{
    const auto rank = [](const std::string& name)
    { return std::tuple(name.find_first_not_of('_'), name.size(), std::string_view(name)); };
    return rank(a) < rank(b);
}

// Assembly has symbols without a size: they reach to the next one, or are mere labels inside a function.
void SettleSymbols(std::vector<Symbol>* pSymbols)
{
    std::sort(pSymbols->begin(), pSymbols->end(),
              [](const Symbol& a, const Symbol& b) {
                  return a.m_address != b.m_address ? a.m_address < b.m_address : IsPlainer(a.m_name, b.m_name);
              });
    std::vector<Symbol> settled;
    uint64_t end = 0; // of the functions so far
    for (Symbol& symbol : *pSymbols)
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
    *pSymbols = std::move(settled);
}

void ReadSymbols(SymbolFile* pFile)
{
    const int count = dwfl_module_getsymtab(pFile->m_pModule);
    for (int i = 1; i < count; ++i)
    {
        GElf_Sym symbol;
        GElf_Addr address = 0;
        const char* pName =
            dwfl_module_getsym_info(pFile->m_pModule, i, &symbol, &address, nullptr, nullptr, nullptr);
        const int type = GELF_ST_TYPE(symbol.st_info);
        const bool isCode =
            type == STT_FUNC || type == STT_GNU_IFUNC || (type == STT_NOTYPE && symbol.st_size == 0);
        if (pName == nullptr || *pName == '\0' || symbol.st_shndx == SHN_UNDEF || symbol.st_shndx == SHN_ABS ||
            !isCode)
        {
            continue;
        }
        const uint64_t inFile = address - pFile->m_bias;
        const std::string name = pName;
        pFile->m_symbols.push_back(
            {inFile, inFile + symbol.st_size, name.substr(0, name.find('@'))}); // its version
    }
    SettleSymbols(&pFile->m_symbols);
}

// Of each compilation unit the addresses that it says it covers: the index that some compilers write is missing
// from the files of others.
void ReadUnits(SymbolFile* pFile)
{
    Dwarf_Addr bias;
    if (dwfl_module_getdwarf(pFile->m_pModule, &bias) == nullptr)
    {
        return;
    }
    Dwarf_Die* pUnit = nullptr;
    while ((pUnit = dwfl_module_nextcu(pFile->m_pModule, pUnit, &bias)) != nullptr)
    {
        Dwarf_Addr base;
        Dwarf_Addr begin;
        Dwarf_Addr end;
        const uint64_t offset = dwarf_dieoffset(pUnit);
        for (ptrdiff_t at = 0; (at = dwarf_ranges(pUnit, at, &base, &begin, &end)) > 0;)
        {
            const uint64_t shift = bias - pFile->m_bias;
            pFile->m_ranges.push_back({begin + shift, end + shift, offset});
        }
    }
    std::sort(pFile->m_ranges.begin(), pFile->m_ranges.end(),
              [](const UnitRange& a, const UnitRange& b) { return a.m_begin < b.m_begin; });
}

std::string NameOfDie(Dwarf_Die* pDie)
{
    Dwarf_Attribute attribute;
    const char* pName = nullptr;
    for (const unsigned kind : {DW_AT_linkage_name, DW_AT_MIPS_linkage_name, DW_AT_name})
    {
        if (pName == nullptr && dwarf_attr_integrate(pDie, kind, &attribute) != nullptr)
        {
            pName = dwarf_formstring(&attribute);
        }
    }
    return pName == nullptr ? "" : pName;
}

// The inlined functions that hold the address, innermost first; *pOuter becomes the name of the real one.
std::vector<std::string> InlinedAt(const SymbolFile& file, uint64_t address, std::string* pOuter)
{
    std::vector<std::string> names;
    const auto after =
        std::upper_bound(file.m_ranges.begin(), file.m_ranges.end(), address,
                         [](uint64_t value, const UnitRange& range) { return value < range.m_begin; });
    if (after == file.m_ranges.begin() || address >= std::prev(after)->m_end)
    {
        return names;
    }
    Dwarf_Addr bias;
    Dwarf* pDwarf = dwfl_module_getdwarf(file.m_pModule, &bias);
    Dwarf_Die unit;
    if (dwarf_offdie(pDwarf, std::prev(after)->m_dieOffset, &unit) == nullptr)
    {
        return names;
    }
    // The scopes at an address lead out of an inlined function to where it was written; those of its entry lead
    // to where it was inlined.
    Dwarf_Die* pAtAddress = nullptr;
    const int countAtAddress = dwarf_getscopes(&unit, address + file.m_bias - bias, &pAtAddress);
    const std::unique_ptr<Dwarf_Die, Freer> addressGuard(pAtAddress);
    Dwarf_Die* pScopes = nullptr;
    const int count = countAtAddress > 0 ? dwarf_getscopes_die(&pAtAddress[0], &pScopes) : 0;
    const std::unique_ptr<Dwarf_Die, Freer> guard(pScopes);
    for (int i = 0; i < count; ++i)
    {
        const int tag = dwarf_tag(&pScopes[i]);
        if (tag == DW_TAG_inlined_subroutine)
        {
            names.push_back(NameOfDie(&pScopes[i]));
        }
        else if (tag == DW_TAG_subprogram)
        {
            *pOuter = NameOfDie(&pScopes[i]);
            break; // what encloses it is where it was written, not what called it
        }
    }
    return names;
}

} // namespace

void DwflCloser::operator()(Dwfl* pDwfl) const
{
    dwfl_end(pDwfl);
}

std::unique_ptr<SymbolFile> OpenSymbolFile(const std::string& path)
{
    auto pFile = std::make_unique<SymbolFile>();
    pFile->m_path = path;
    pFile->m_pDwfl.reset(dwfl_begin(&g_callbacks));
    if (pFile->m_pDwfl == nullptr || !path.starts_with('/'))
    {
        return pFile; // pseudo-files like [vdso] are none
    }
    pFile->m_pModule = dwfl_report_offline(pFile->m_pDwfl.get(), path.c_str(), path.c_str(), -1);
    dwfl_report_end(pFile->m_pDwfl.get(), nullptr, nullptr);
    if (pFile->m_pModule == nullptr)
    {
        return pFile;
    }
    pFile->m_isReadable = true;
    ReadSegments(pFile.get());
    ReadSymbols(pFile.get());
    ReadUnits(pFile.get());
    return pFile;
}

uint64_t AddressInFile(const SymbolFile& file, uint64_t mappingSize, uint64_t offset)
{
    const auto sameSize =
        std::find_if(file.m_segments.begin(), file.m_segments.end(),
                     [mappingSize](const CodeSegment& segment) { return segment.m_size == mappingSize; });
    if (sameSize != file.m_segments.end())
    {
        return sameSize->m_address + offset;
    }
    return file.m_segments.empty() ? offset : file.m_segments.front().m_address + offset;
}

const Symbol* FindSymbol(const SymbolFile& file, uint64_t address)
{
    auto at = std::upper_bound(file.m_symbols.begin(), file.m_symbols.end(), address,
                               [](uint64_t value, const Symbol& symbol) { return value < symbol.m_address; });
    // A symbol may lie inside another one: a few steps back find the one that reaches here.
    for (int steps = 0; steps < 8 && at != file.m_symbols.begin(); ++steps)
    {
        --at;
        if (address == at->m_address || address < at->m_end)
        {
            return &*at;
        }
    }
    return nullptr;
}

std::vector<std::string> FunctionsAt(const SymbolFile& file, uint64_t address)
{
    std::string outer;
    std::vector<std::string> names = InlinedAt(file, address, &outer);
    if (const Symbol* pSymbol = FindSymbol(file, address))
    {
        outer = pSymbol->m_name; // one name for a function, with and without debug information
    }
    if (outer.empty() && names.empty())
    {
        return names;
    }
    names.push_back(std::move(outer));
    for (std::string& name : names)
    {
        name = name.empty() ? "?" : Demangled(name);
    }
    return names;
}

bool IsSignalReturn(const SymbolFile& file, uint64_t address)
{
    constexpr std::array<unsigned char, 9> code = {0x48, 0xc7, 0xc0, 0x0f, 0, 0, 0, 0x0f, 0x05}; // rt_sigreturn
    GElf_Addr bias;
    Elf* pElf = file.m_pModule == nullptr ? nullptr : dwfl_module_getelf(file.m_pModule, &bias);
    size_t count = 0;
    if (pElf == nullptr || elf_getphdrnum(pElf, &count) != 0)
    {
        return false;
    }
    for (size_t i = 0; i < count; ++i)
    {
        GElf_Phdr header;
        if (gelf_getphdr(pElf, static_cast<int>(i), &header) == nullptr || header.p_type != PT_LOAD ||
            address < header.p_vaddr || address + code.size() > header.p_vaddr + header.p_filesz)
        {
            continue;
        }
        size_t fileSize = 0;
        const char* pBytes = elf_rawfile(pElf, &fileSize);
        const uint64_t at = header.p_offset + (address - header.p_vaddr);
        return pBytes != nullptr && at + code.size() <= fileSize &&
               memcmp(pBytes + at, code.data(), code.size()) == 0;
    }
    return false;
}

std::string Demangled(const std::string& name)
{
    if (!name.starts_with("_Z"))
    {
        return name;
    }
    int status = 0;
    const std::unique_ptr<char, Freer> pText(abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status));
    return status == 0 && pText != nullptr ? pText.get() : name;
}

} // namespace qelix
