#include "SymbolSupport.h"

#include <cstring>
#include <elf.h>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>

using namespace qelix;

// The address that the file's own symbol has, read without the library under test.
uint64_t AddressOf(const std::string& path, const std::string& name)
{
    std::ifstream file(path, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), {});
    const auto at = [&bytes]<typename T>(T* pValue, std::size_t offset)
    { std::memcpy(pValue, bytes.data() + offset, sizeof(T)); };
    Elf64_Ehdr header;
    at(&header, 0);
    for (unsigned i = 0; i < header.e_shnum; ++i)
    {
        Elf64_Shdr section;
        at(&section, header.e_shoff + i * sizeof(section));
        if (section.sh_type != SHT_SYMTAB)
        {
            continue;
        }
        Elf64_Shdr strings;
        at(&strings, header.e_shoff + section.sh_link * sizeof(strings));
        for (uint64_t offset = section.sh_offset; offset < section.sh_offset + section.sh_size;
             offset += sizeof(Elf64_Sym))
        {
            Elf64_Sym symbol;
            at(&symbol, offset);
            if (name == bytes.data() + strings.sh_offset + symbol.st_name)
            {
                return symbol.st_value;
            }
        }
    }
    ADD_FAILURE() << path << " has no symbol " << name;
    return 0;
}

ModuleMap MapOf(std::vector<Mapping> mappings)
{
    ModuleMap map;
    for (Mapping& mapping : mappings)
    {
        AddMapping(&map, std::move(mapping));
    }
    SettleMap(&map);
    return map;
}

void SymbolsTest::SetUp()
{
    Use(m_subject);
}

void SymbolsTest::Use(const std::string& path)
{
    const auto pFile = OpenSymbolFile(path);
    ASSERT_TRUE(pFile->m_isReadable) << path;
    const LoadedSegment& segment = pFile->m_code.at(0);
    m_process = SymbolsOf(
        &m_symbolizer, MapOf({{BASE + segment.m_address, BASE + segment.m_address + segment.m_size, 1, path}}));
}

std::vector<std::string> SymbolsTest::NamesAt(uint64_t address)
{
    std::vector<std::string> names;
    for (const uint32_t id : PlaceOf(&m_process, address, 1).m_functions)
    {
        names.push_back(m_symbolizer.m_functions[id].m_name);
    }
    return names;
}

std::vector<std::string> SymbolsTest::LinesAt(uint64_t address)
{
    std::vector<std::string> lines;
    for (const uint32_t id : PlaceOf(&m_process, address, 1).m_lines)
    {
        const CodeLine& line = m_symbolizer.m_lines[id];
        const std::filesystem::path source = m_symbolizer.m_sources[line.m_source];
        lines.push_back(fmt::format("{}:{}", source.filename().string(), line.m_line));
    }
    return lines;
}
