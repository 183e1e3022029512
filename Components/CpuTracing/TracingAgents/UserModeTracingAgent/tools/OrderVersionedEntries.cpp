// Puts the entries of a versioned name into the order in which the loader must meet them.
//
// A name has up to three entries: name@OLD, name@@NEW, and weak name@@OLD. A program that is bound to the old
// version is answered by the first of name@OLD and weak name@@OLD in the hash chain, and which that is, the
// linker leaves to the order of its own tables. Where the weak one comes first, the two change places here,
// with their versions. Both have the same hash value, so the chain itself stays as it is; no relocation of the
// agent names either.
#include <cstdio>
#include <cstring>
#include <elf.h>
#include <map>
#include <string>
#include <vector>

namespace
{

constexpr Elf64_Half HIDDEN_VERSION = 0x8000;

struct Image
{
    std::vector<char> m_bytes;

    template <typename T> T* At(Elf64_Off offset)
    {
        return reinterpret_cast<T*>(m_bytes.data() + offset);
    }
    Elf64_Shdr* Section(Elf64_Word type)
    {
        auto pHeader = At<Elf64_Ehdr>(0);
        auto pSections = At<Elf64_Shdr>(pHeader->e_shoff);
        for (int i = 0; i < pHeader->e_shnum; i++)
            if (pSections[i].sh_type == type)
                return &pSections[i];
        return nullptr;
    }
    const char* NameOf(const Elf64_Shdr* pSymbols, const Elf64_Sym& symbol)
    {
        auto pSections = At<Elf64_Shdr>(At<Elf64_Ehdr>(0)->e_shoff);
        return At<const char>(pSections[pSymbols->sh_link].sh_offset) + symbol.st_name;
    }
};

bool ReadFile(const char* pPath, Image* pImage)
{
    FILE* pFile = fopen(pPath, "rb");
    if (pFile == nullptr)
        return false;
    char block[65536];
    for (size_t count; (count = fread(block, 1, sizeof(block), pFile)) > 0;)
        pImage->m_bytes.insert(pImage->m_bytes.end(), block, block + count);
    fclose(pFile);
    return pImage->m_bytes.size() > sizeof(Elf64_Ehdr);
}

bool WriteFile(const char* pPath, const Image& image)
{
    FILE* pFile = fopen(pPath, "r+b");
    if (pFile == nullptr)
        return false;
    bool isWritten = fwrite(image.m_bytes.data(), 1, image.m_bytes.size(), pFile) == image.m_bytes.size();
    return fclose(pFile) == 0 && isWritten;
}

bool IsDefined(const Elf64_Sym& symbol)
{
    return symbol.st_shndx != SHN_UNDEF && ELF64_ST_TYPE(symbol.st_info) == STT_FUNC;
}

// Swaps each weak entry with the hidden one of the same name and version that follows it.
int Order(Image* pImage)
{
    const Elf64_Shdr* pSymbols = pImage->Section(SHT_DYNSYM);
    const Elf64_Shdr* pVersions = pImage->Section(SHT_GNU_versym);
    if (pSymbols == nullptr || pVersions == nullptr)
        return -1;
    auto pTable = pImage->At<Elf64_Sym>(pSymbols->sh_offset);
    auto pVersion = pImage->At<Elf64_Half>(pVersions->sh_offset);
    size_t count = pSymbols->sh_size / sizeof(Elf64_Sym);

    std::map<std::string, size_t> weakOnes;
    int swapped = 0;
    for (size_t i = 1; i < count; i++)
    {
        if (!IsDefined(pTable[i]))
            continue;
        std::string name = pImage->NameOf(pSymbols, pTable[i]);
        if (ELF64_ST_BIND(pTable[i].st_info) == STB_WEAK)
            weakOnes[name] = i;
        else if ((pVersion[i] & HIDDEN_VERSION) != 0 && weakOnes.count(name) != 0)
        {
            size_t weak = weakOnes[name];
            std::swap(pTable[i], pTable[weak]);
            std::swap(pVersion[i], pVersion[weak]);
            swapped++;
        }
    }
    return swapped;
}

} // namespace

int main(int count, char** ppArguments)
{
    if (count != 2)
        return fprintf(stderr, "usage: OrderVersionedEntries SHARED_OBJECT\n"), 2;
    Image image;
    if (!ReadFile(ppArguments[1], &image) || memcmp(image.m_bytes.data(), ELFMAG, SELFMAG) != 0 ||
        Order(&image) < 0 || !WriteFile(ppArguments[1], image))
        return fprintf(stderr, "OrderVersionedEntries: %s cannot be ordered\n", ppArguments[1]), 1;
    return 0;
}
