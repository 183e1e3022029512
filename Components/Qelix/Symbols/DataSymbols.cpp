#include "Symbols/DataSymbols.h"

#include "Symbols/Symbolizer.h"

#include <algorithm>
#include <elfutils/libdwfl.h>
#include <fmt/format.h>
#include <gelf.h>
#include <tuple>

namespace qelix
{
namespace
{

void ReadVariables(DataFile* pFile)
{
    pFile->m_hasVariables = true;
    const int count = dwfl_module_getsymtab(pFile->m_pModule);
    for (int i = 1; i < count; ++i)
    {
        GElf_Sym symbol;
        GElf_Addr address = 0;
        const char* pName =
            dwfl_module_getsym_info(pFile->m_pModule, i, &symbol, &address, nullptr, nullptr, nullptr);
        const int type = GELF_ST_TYPE(symbol.st_info);
        if (pName == nullptr || *pName == '\0' || symbol.st_shndx == SHN_UNDEF || symbol.st_shndx == SHN_ABS ||
            (type != STT_OBJECT && type != STT_COMMON) || symbol.st_size == 0)
        {
            continue;
        }
        const std::string name = pName;
        const uint64_t inFile = address - pFile->m_bias;
        pFile->m_variables.push_back({inFile, inFile + symbol.st_size, name.substr(0, name.find('@'))});
    }
    std::sort(pFile->m_variables.begin(), pFile->m_variables.end(),
              [](const Variable& a, const Variable& b)
              { return std::tie(a.m_address, a.m_end, a.m_name) < std::tie(b.m_address, b.m_end, b.m_name); });
}

const Variable* FindVariable(const DataFile& file, uint64_t address)
{
    auto at = std::upper_bound(file.m_variables.begin(), file.m_variables.end(), address,
                               [](uint64_t value, const Variable& symbol) { return value < symbol.m_address; });
    // A variable may have a second name for a part of it: a few steps back find the one that reaches here.
    for (int steps = 0; steps < 8 && at != file.m_variables.begin(); ++steps)
    {
        --at;
        if (address < at->m_end)
        {
            return &*at;
        }
    }
    return nullptr;
}

} // namespace

std::vector<DataImage> DataImagesOf(DataFiles* pFiles, const ModuleMap& map)
{
    std::vector<DataImage> images;
    for (const Mapping& mapping : map.m_mappings)
    {
        std::unique_ptr<DataFile>& pFile = pFiles->m_files[mapping.m_path];
        if (pFile == nullptr)
        {
            pFile = std::make_unique<DataFile>();
            OpenElfModule(pFile.get(), mapping.m_path); // what cannot be read has no segments
        }
        const LoadedSegment* pSegment = SegmentMapped(*pFile, mapping.m_end - mapping.m_start);
        if (pSegment == nullptr)
        {
            continue;
        }
        DataImage image{UINT64_MAX, 0, mapping.m_start - pSegment->m_address, mapping.m_path, pFile.get()};
        for (const LoadedSegment& segment : pFile->m_segments)
        {
            image.m_begin = std::min(image.m_begin, image.m_bias + segment.m_address);
            image.m_end = std::max(image.m_end, image.m_bias + segment.m_address + segment.m_size);
        }
        images.push_back(std::move(image));
    }
    std::sort(images.begin(), images.end(),
              [](const DataImage& a, const DataImage& b) { return a.m_begin < b.m_begin; });
    return images;
}

std::string DataName(const std::vector<DataImage>& images, uint64_t address)
{
    const auto after =
        std::upper_bound(images.begin(), images.end(), address,
                         [](uint64_t value, const DataImage& image) { return value < image.m_begin; });
    if (after == images.begin() || address >= std::prev(after)->m_end)
    {
        return "";
    }
    const DataImage& image = *std::prev(after);
    if (!image.m_pFile->m_hasVariables)
    {
        ReadVariables(image.m_pFile);
    }
    const uint64_t inFile = address - image.m_bias;
    const Variable* pVariable = FindVariable(*image.m_pFile, inFile);
    if (pVariable == nullptr)
    {
        return fmt::format("{}+{:#x}", ModuleName(image.m_path), inFile);
    }
    const std::string name = Demangled(pVariable->m_name);
    return inFile == pVariable->m_address ? name : fmt::format("{}+{:#x}", name, inFile - pVariable->m_address);
}

} // namespace qelix
