// Names for the addresses of data, such as locks: the variables of the files that a process had mapped. The
// metadata knows executable mappings alone, and they tell where the rest of each file lay.
#pragma once

#include "Symbols/ModuleMap.h"
#include "Symbols/SymbolFile.h"

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace qelix
{

struct LoadedSegment
{
    uint64_t m_address = 0; // in the file's own address space
    uint64_t m_size = 0;
};

struct Variable
{
    uint64_t m_address = 0;
    uint64_t m_end = 0;
    std::string m_name; // as linked, without a version
};

struct DataFile
{
    std::unique_ptr<Dwfl, DwflCloser> m_pDwfl;
    Dwfl_Module* m_pModule = nullptr;
    uint64_t m_bias = 0;                   // of the library's view of the module
    std::vector<LoadedSegment> m_code;     // executable ones, in whole pages
    std::vector<LoadedSegment> m_segments; // all that are loaded, with what is zero at the start
    bool m_hasVariables = false;           // they have been read
    std::vector<Variable> m_variables;     // by address
};

// The files of a session, opened when a process that had them mapped is asked for, read when one of their
// variables is.
struct DataFiles
{
    std::unordered_map<std::string, std::unique_ptr<DataFile>> m_files;
};

// Where the files of one process lay, data included.
struct DataImage
{
    uint64_t m_begin = 0;
    uint64_t m_end = 0;
    uint64_t m_bias = 0; // what is added to the file's own addresses
    std::string m_path;
    DataFile* m_pFile = nullptr;
};

std::vector<DataImage> DataImagesOf(DataFiles* pFiles, const ModuleMap& map); // by start

// "g_lock", "g_queue+0x28", "libx.so+0x4010" without a symbol; empty for what lies in no file: heap and stacks.
std::string DataName(const std::vector<DataImage>& images, uint64_t address);

} // namespace qelix
