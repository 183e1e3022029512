// The functions of one ELF file, by address in the file: its symbols (also those of a separate debug file,
// found by build-id or link, and of an embedded one) and, from its debug information, the calls that were
// inlined, and the source lines.
#pragma once

#include "Symbols/DebugInfo.h"
#include "Symbols/ElfModule.h"
#include "Symbols/FunctionStarts.h"
#include "Symbols/SymbolTable.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace qelix
{

struct FileFunction
{
    std::string m_name;  // demangled
    SourcePlace m_place; // where it begins
};

// One of the functions at an address.
struct FileFrame
{
    uint32_t m_function = 0; // an index
    uint32_t m_source = 0;   // of the line that is executed there: an index of the debug information's
    uint32_t m_line = 0;     // 0: not known
};

struct SymbolFile : ElfModule
{
    std::string m_path;
    bool m_isReadable = false;
    std::string m_buildId;          // hex digits; empty: it has none
    bool m_hasLocalSymbols = false; // not only those that it exports
    std::vector<Symbol> m_symbols;
    DebugInfo m_debugInfo;
    std::optional<std::vector<FunctionRange>> m_ranges;          // once a function without a name was asked for
    std::vector<FileFunction> m_functions;                       // those that were asked for
    std::unordered_map<const void*, uint32_t> m_functionOfEntry; // of the debug information
};

// ZORV_VDSO opens this process's own. What cannot be opened is not readable and has no symbols.
std::unique_ptr<SymbolFile> OpenSymbolFile(const std::string& path);

// The file's address of what lies so far behind the start of a mapping of this size.
uint64_t AddressInFile(const SymbolFile& file, uint64_t mappingSize, uint64_t offset);

// The functions at an address, the innermost inlined one first, the one that really stands there last. Empty
// when the file has no name for it.
std::vector<FileFrame> FramesAt(SymbolFile* pFile, uint64_t address);

// Where the function at an address begins, as far as the unwinding tables know; else the address itself.
uint64_t StartOfUnnamed(SymbolFile* pFile, uint64_t address);

// Is this how libc returns from a signal handler?
bool IsSignalReturn(const SymbolFile& file, uint64_t address);

} // namespace qelix
