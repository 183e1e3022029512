#include "Symbols/SymbolFile.h"

#include "Symbols/EntryNames.h"
#include "Symbols/FunctionNames.h"

#include <array>
#include <cstring>
#include <elfutils/libdwfl.h>
#include <fmt/format.h>
#include <gelf.h>

namespace qelix
{
namespace
{

std::string ReadBuildId(Dwfl_Module* pModule)
{
    const unsigned char* pBytes = nullptr;
    GElf_Addr address = 0;
    const int size = dwfl_module_build_id(pModule, &pBytes, &address);
    std::string digits;
    for (int i = 0; i < size; ++i)
    {
        digits += fmt::format("{:02x}", pBytes[i]);
    }
    return digits;
}

uint32_t AddFunction(SymbolFile* pFile, std::string_view linkedName, Dwarf_Die* pEntry)
{
    FileFunction function{linkedName.empty() ? "?" : Demangled(linkedName)};
    if (pEntry->addr != nullptr)
    {
        function.m_place = PlaceOfFunction(&pFile->m_debugInfo, pEntry);
    }
    pFile->m_functions.push_back(std::move(function));
    return static_cast<uint32_t>(pFile->m_functions.size() - 1);
}

uint32_t FunctionOfEntry(SymbolFile* pFile, Dwarf_Die* pEntry)
{
    const auto [at, isNew] = pFile->m_functionOfEntry.emplace(pEntry->addr, 0);
    if (isNew)
    {
        at->second = AddFunction(pFile, NameOfFunction(pEntry), pEntry);
    }
    return at->second;
}

// One name for a function, with and without debug information: that of the symbol.
uint32_t FunctionOfSymbol(SymbolFile* pFile, Symbol* pSymbol, Dwarf_Die* pEntry)
{
    if (pSymbol->m_function == ZORV_NO_FUNCTION)
    {
        pSymbol->m_function = AddFunction(pFile, pSymbol->m_name, pEntry);
    }
    return pSymbol->m_function;
}

} // namespace

std::unique_ptr<SymbolFile> OpenSymbolFile(const std::string& path)
{
    auto pFile = std::make_unique<SymbolFile>();
    pFile->m_path = path;
    if (!OpenElfModule(pFile.get(), path))
    {
        return pFile;
    }
    pFile->m_isReadable = true;
    pFile->m_buildId = ReadBuildId(pFile->m_pModule);
    pFile->m_symbols = ReadSymbols(pFile->m_pModule, pFile->m_bias, &pFile->m_hasLocalSymbols);
    pFile->m_debugInfo = OpenDebugInfo(pFile->m_pModule, pFile->m_bias);
    return pFile;
}

uint64_t AddressInFile(const SymbolFile& file, uint64_t mappingSize, uint64_t offset)
{
    const LoadedSegment* pSegment = SegmentMapped(file, mappingSize);
    return pSegment == nullptr ? offset : pSegment->m_address + offset;
}

std::vector<FileFrame> FramesAt(SymbolFile* pFile, uint64_t address)
{
    std::vector<DebugFrame> known = DebugFramesAt(&pFile->m_debugInfo, address);
    Symbol* pSymbol = FindSymbol(&pFile->m_symbols, address);
    if (pSymbol != nullptr && (known.empty() || known.back().m_isInlined))
    {
        known.push_back({});
    }
    std::vector<FileFrame> frames;
    for (DebugFrame& frame : known)
    {
        const bool isReal = &frame == &known.back();
        if (pSymbol != nullptr && isReal)
        {
            frames.push_back(
                {FunctionOfSymbol(pFile, pSymbol, &frame.m_function), frame.m_source, frame.m_line});
        }
        else if (frame.m_function.addr != nullptr)
        {
            frames.push_back({FunctionOfEntry(pFile, &frame.m_function), frame.m_source, frame.m_line});
        }
    }
    return frames;
}

uint64_t StartOfUnnamed(SymbolFile* pFile, uint64_t address)
{
    if (!pFile->m_ranges)
    {
        pFile->m_ranges = ReadFunctionRanges(pFile->m_pModule);
    }
    return FunctionStart(*pFile->m_ranges, address).value_or(address);
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

} // namespace qelix
