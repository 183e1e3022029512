// Names for the addresses of data, such as locks: the variables of the files that a process had mapped. The
// metadata knows executable mappings alone, and they tell where the rest of each file lay.
#pragma once

#include "Symbols/ElfModule.h"
#include "Symbols/ModuleMap.h"

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace qelix
{

struct Variable
{
    uint64_t m_address = 0;
    uint64_t m_end = 0;
    std::string m_name; // as linked, without a version
};

struct DataFile : ElfModule
{
    bool m_hasVariables = false;       // they have been read
    std::vector<Variable> m_variables; // by address
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
