// Names for the addresses of a session. A file is opened once and an address of it is looked up once, whatever
// the number of processes that have it mapped.
#pragma once

#include "Symbols/FunctionNames.h"
#include "Symbols/ModuleMap.h"
#include "Symbols/RecordedFiles.h"
#include "Symbols/SymbolFile.h"

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace qelix
{

struct Function
{
    std::string m_name;     // demangled; "module+0x1234", where it begins, when no symbol tells
    std::string m_module;   // the file's path, "[vdso]" and the like, or "[no module]"
    std::string m_source{}; // the file it is written in; empty: not known
    uint32_t m_line = 0;    // where it begins in there; 0: not known
};

// A function and the line in it that was executed.
struct CodeLine
{
    uint32_t m_function = 0; // id
    uint32_t m_source = 0;   // id of a file, which need not be the one the function begins in; 0: not known
    uint32_t m_line = 0;     // 0: not known
    bool operator==(const CodeLine&) const = default;
};

struct CodeLineHash
{
    std::size_t operator()(const CodeLine& line) const;
};

// What stands at one address.
struct CodePlace
{
    std::vector<uint32_t> m_functions; // ids; inlined ones first, the one that really stands there last
    std::vector<uint32_t> m_lines;     // ids, one for each function
    bool m_isNamed = false;            // a symbol or debug information told the name
    bool m_isUnwinding = false;        // code of the agent or of its unwinder
    bool m_isSignalReturn = false;     // where libc returns from a signal handler
};

// One file and what was looked up in it.
struct Module
{
    std::unique_ptr<SymbolFile> m_pFile;
    FileMatch m_match = ZORV_FILE_SAME;
    std::unordered_map<uint64_t, CodePlace> m_places; // by address in the file
    std::vector<uint32_t> m_functionIds;              // of the file's functions
    std::vector<uint32_t> m_sourceIds;                // of the file's sources
};

// Ids are indexes.
struct Symbolizer
{
    RecordedFiles m_recorded; // to be set before the first look-up
    std::vector<Function> m_functions;
    std::vector<CodeLine> m_lines;
    std::vector<std::string> m_sources = {""}; // paths of source files
    std::unordered_map<std::string, uint32_t> m_functionIds;
    std::unordered_map<CodeLine, uint32_t, CodeLineHash> m_lineIds;
    std::unordered_map<std::string, uint32_t> m_sourceIds = {{"", 0}};
    std::unordered_map<std::string, Module> m_modules; // by path
    CodePlace m_nowhere; // code that belongs to no file, as compilers make it at run time
};

// The addresses of one process.
struct ProcessSymbols
{
    Symbolizer* m_pSymbolizer = nullptr;
    ModuleMap m_map;
    std::unordered_map<uint64_t, const CodePlace*> m_known; // only while the map is stable
};

ProcessSymbols SymbolsOf(Symbolizer* pSymbolizer, ModuleMap map);

// Valid as long as the symbolizer.
const CodePlace& PlaceOf(ProcessSymbols* pProcess, uint64_t address, uint64_t time);

// The name of the function that begins at, or holds, the address; the address itself where no file lay.
std::string CallName(ProcessSymbols* pProcess, uint64_t address, uint64_t time);

// "libc.so.6" of "/usr/lib/x86_64-linux-gnu/libc.so.6".
std::string ModuleName(const std::string& path);

// The frames of a sample that the program itself made: without those of the agent's handler and of the signal's
// delivery, which stand at the inner end. The index of the first of them.
std::size_t FirstOwnFrame(ProcessSymbols* pProcess, const std::vector<uint64_t>& stack, uint64_t time);

// Where the frame at this index of a stack was executing: an outer frame's address is the one that its call
// returns to, which may belong to the next line or function already.
uint64_t FrameAddress(ProcessSymbols* pProcess, const std::vector<uint64_t>& stack, std::size_t index,
                      std::size_t firstOwnFrame, uint64_t time);

} // namespace qelix
