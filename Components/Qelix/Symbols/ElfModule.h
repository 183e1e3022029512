// One ELF file with its separate debug file, as elfutils sees them, and which parts of it are loaded.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct Dwfl;
struct Dwfl_Module;

namespace qelix
{

constexpr const char* ZORV_VDSO = "[vdso]"; // as mappings name the kernel's code

struct DwflCloser
{
    void operator()(Dwfl* pDwfl) const;
};

struct LoadedSegment
{
    uint64_t m_address = 0; // in the file's own address space
    uint64_t m_size = 0;
};

struct ElfModule
{
    std::unique_ptr<Dwfl, DwflCloser> m_pDwfl;
    Dwfl_Module* m_pModule = nullptr;      // null: the file cannot be read
    uint64_t m_bias = 0;                   // of the library's view of the module
    std::vector<LoadedSegment> m_code;     // executable ones, in whole pages
    std::vector<LoadedSegment> m_segments; // all that are loaded, with what is zero at the start
};

// ZORV_VDSO opens this process's own. False for what is no regular file with code that can be read.
bool OpenElfModule(ElfModule* pModule, const std::string& path);

// Of several executable segments the one whose size the mapping has, else the first; null without any.
const LoadedSegment* SegmentMapped(const ElfModule& module, uint64_t mappingSize);

} // namespace qelix
