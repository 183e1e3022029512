#include "Symbols/FunctionStarts.h"

#include <algorithm>
#include <cstring>
#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>
#include <gelf.h>
#include <string_view>
#include <unordered_map>

namespace qelix
{
namespace
{

// How a table's addresses are written: the low four bits say as what, the next three relative to what.
constexpr uint8_t ZORV_ENCODED_AS = 0x0F;
constexpr uint8_t ZORV_ENCODED_FROM = 0x70;
constexpr uint8_t ZORV_ENCODED_INDIRECT = 0x80;
constexpr uint8_t ZORV_FROM_NOTHING = 0x00;
constexpr uint8_t ZORV_FROM_HERE = 0x10;

struct FrameTable
{
    Elf_Data* m_pData = nullptr;
    uint64_t m_address = 0; // in the file's own address space
};

FrameTable FindFrameTable(Elf* pElf)
{
    size_t names = 0;
    if (pElf == nullptr || elf_getshdrstrndx(pElf, &names) != 0)
    {
        return {};
    }
    Elf_Scn* pSection = nullptr;
    while ((pSection = elf_nextscn(pElf, pSection)) != nullptr)
    {
        GElf_Shdr header;
        const char* pName =
            gelf_getshdr(pSection, &header) == nullptr ? nullptr : elf_strptr(pElf, names, header.sh_name);
        if (pName != nullptr && std::string_view(pName) == ".eh_frame" && header.sh_type != SHT_NOBITS)
        {
            return {elf_rawdata(pSection, nullptr), header.sh_addr};
        }
    }
    return {};
}

// The bytes of a number of a 64-bit file that is written so; 0 for a form that tables of functions do not use.
std::size_t SizeOf(uint8_t encoding)
{
    switch (encoding & ZORV_ENCODED_AS)
    {
    case 0x00: // an address
    case 0x04: // 8 bytes, unsigned and signed
    case 0x0C:
        return 8;
    case 0x03: // 4 bytes
    case 0x0B:
        return 4;
    default:
        return 0;
    }
}

uint64_t NumberAt(const uint8_t* pBytes, uint8_t encoding)
{
    if (SizeOf(encoding) == 8)
    {
        uint64_t value;
        memcpy(&value, pBytes, sizeof(value));
        return value;
    }
    int32_t value;
    memcpy(&value, pBytes, sizeof(value));
    const bool isSigned = (encoding & ZORV_ENCODED_AS) == 0x0B;
    return isSigned ? static_cast<uint64_t>(int64_t{value}) : static_cast<uint32_t>(value);
}

// How the functions of this group of entries are written, as its augmentation tells, of which the letters
// before the one for that may take bytes of their own.
std::optional<uint8_t> EncodingOf(const Dwarf_CIE& group)
{
    const std::string_view letters = group.augmentation;
    if (letters.empty())
    {
        return uint8_t{0};
    }
    const uint8_t* pData = group.augmentation_data;
    const uint8_t* pEnd = pData == nullptr ? nullptr : pData + group.augmentation_data_size;
    for (const char letter : letters.substr(1))
    {
        if (pData == nullptr || pData >= pEnd)
        {
            return std::nullopt;
        }
        if (letter == 'R')
        {
            return *pData;
        }
        if (letter == 'P')
        {
            pData += std::min<std::ptrdiff_t>(static_cast<std::ptrdiff_t>(SizeOf(*pData)), pEnd - pData - 1);
        }
        pData += letter == 'P' || letter == 'L' ? 1 : 0;
    }
    return uint8_t{0};
}

std::optional<FunctionRange> RangeOf(const FrameTable& table, const Dwarf_FDE& entry, uint8_t encoding)
{
    const std::size_t size = SizeOf(encoding);
    const uint8_t from = encoding & ZORV_ENCODED_FROM;
    if (size == 0 || (encoding & ZORV_ENCODED_INDIRECT) != 0 ||
        (from != ZORV_FROM_NOTHING && from != ZORV_FROM_HERE) ||
        static_cast<std::size_t>(entry.end - entry.start) < 2 * size)
    {
        return std::nullopt;
    }
    const auto* pTable = static_cast<const uint8_t*>(table.m_pData->d_buf);
    uint64_t begin = NumberAt(entry.start, encoding);
    if (from == ZORV_FROM_HERE)
    {
        begin += table.m_address + static_cast<uint64_t>(entry.start - pTable);
    }
    return FunctionRange{begin, begin + NumberAt(entry.start + size, encoding)};
}

} // namespace

std::vector<FunctionRange> ReadFunctionRanges(Dwfl_Module* pModule)
{
    std::vector<FunctionRange> ranges;
    GElf_Addr bias;
    Elf* pElf = pModule == nullptr ? nullptr : dwfl_module_getelf(pModule, &bias);
    const FrameTable table = FindFrameTable(pElf);
    if (table.m_pData == nullptr || table.m_pData->d_buf == nullptr)
    {
        return ranges;
    }
    const auto* pIdentity = reinterpret_cast<const unsigned char*>(elf_getident(pElf, nullptr));
    std::unordered_map<Dwarf_Off, std::optional<uint8_t>> encodings; // of each group of entries
    Dwarf_CFI_Entry entry;
    Dwarf_Off next = 0;
    for (Dwarf_Off at = 0; dwarf_next_cfi(pIdentity, table.m_pData, true, at, &next, &entry) == 0; at = next)
    {
        if (dwarf_cfi_cie_p(&entry))
        {
            encodings[at] = EncodingOf(entry.cie);
            continue;
        }
        const auto found = encodings.find(entry.fde.CIE_pointer);
        const bool isKnown = found != encodings.end() && found->second.has_value();
        if (const auto range = isKnown ? RangeOf(table, entry.fde, *found->second) : std::nullopt)
        {
            ranges.push_back(*range);
        }
    }
    std::sort(ranges.begin(), ranges.end(),
              [](const FunctionRange& a, const FunctionRange& b) { return a.m_begin < b.m_begin; });
    return ranges;
}

std::optional<uint64_t> FunctionStart(const std::vector<FunctionRange>& ranges, uint64_t address)
{
    const auto after =
        std::upper_bound(ranges.begin(), ranges.end(), address,
                         [](uint64_t value, const FunctionRange& range) { return value < range.m_begin; });
    if (after == ranges.begin() || address >= std::prev(after)->m_end)
    {
        return std::nullopt;
    }
    return std::prev(after)->m_begin;
}

} // namespace qelix
