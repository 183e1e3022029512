// The functions of one ELF file, by address in the file: its symbols (also those of a separate debug file,
// found by build-id or link, and of an embedded one) and, from its debug information, the calls that were
// inlined.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct Dwfl;
struct Dwfl_Module;

namespace qelix
{

struct DwflCloser
{
    void operator()(Dwfl* pDwfl) const;
};

struct CodeSegment
{
    uint64_t m_address = 0; // in the file's own address space, where its page begins
    uint64_t m_size = 0;    // whole pages
};

struct Symbol
{
    uint64_t m_address = 0;
    uint64_t m_end = 0;
    std::string m_name; // as linked
};

struct UnitRange
{
    uint64_t m_begin = 0;
    uint64_t m_end = 0;
    uint64_t m_dieOffset = 0;
};

struct SymbolFile
{
    std::string m_path;
    bool m_isReadable = false;
    std::unique_ptr<Dwfl, DwflCloser> m_pDwfl;
    Dwfl_Module* m_pModule = nullptr;
    uint64_t m_bias = 0; // of the library's view of the module
    std::vector<CodeSegment> m_segments;
    std::vector<Symbol> m_symbols;   // by address, the best name of each
    std::vector<UnitRange> m_ranges; // of the compilation units, by address
};

std::unique_ptr<SymbolFile> OpenSymbolFile(const std::string& path);

// The file's address of what lies so far behind the start of a mapping of this size.
uint64_t AddressInFile(const SymbolFile& file, uint64_t mappingSize, uint64_t offset);

// Null when no function of the file holds the address.
const Symbol* FindSymbol(const SymbolFile& file, uint64_t address);

// The functions at an address, the innermost inlined one first, the one that really stands there last;
// demangled. Empty when the file has no name for it.
std::vector<std::string> FunctionsAt(const SymbolFile& file, uint64_t address);

// Is this how libc returns from a signal handler?
bool IsSignalReturn(const SymbolFile& file, uint64_t address);

std::string Demangled(const std::string& name);

} // namespace qelix
