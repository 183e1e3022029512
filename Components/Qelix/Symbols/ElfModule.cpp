#include "Symbols/ElfModule.h"

#include "Symbols/VdsoImage.h"

#include <algorithm>
#include <elfutils/libdwfl.h>
#include <filesystem>
#include <gelf.h>
#include <system_error>

namespace qelix
{
namespace
{

constexpr uint64_t ZORV_PAGE = 4096;

const Dwfl_Callbacks g_callbacks = {dwfl_build_id_find_elf, dwfl_standard_find_debuginfo,
                                    dwfl_offline_section_address, nullptr};

void ReadSegments(ElfModule* pModule)
{
    GElf_Addr bias;
    Elf* pElf = dwfl_module_getelf(pModule->m_pModule, &bias);
    size_t count = 0;
    if (pElf == nullptr || elf_getphdrnum(pElf, &count) != 0)
    {
        return;
    }
    pModule->m_bias = bias;
    for (size_t i = 0; i < count; ++i)
    {
        GElf_Phdr header;
        if (gelf_getphdr(pElf, static_cast<int>(i), &header) == nullptr || header.p_type != PT_LOAD)
        {
            continue;
        }
        pModule->m_segments.push_back({header.p_vaddr, header.p_memsz});
        if ((header.p_flags & PF_X) != 0)
        {
            const uint64_t begin = header.p_vaddr / ZORV_PAGE * ZORV_PAGE;
            const uint64_t end = (header.p_vaddr + header.p_filesz + ZORV_PAGE - 1) / ZORV_PAGE * ZORV_PAGE;
            pModule->m_code.push_back({begin, end - begin});
        }
    }
}

} // namespace

void DwflCloser::operator()(Dwfl* pDwfl) const
{
    dwfl_end(pDwfl);
}

bool OpenElfModule(ElfModule* pModule, const std::string& path)
{
    const bool isVdso = path == ZORV_VDSO;
    const int fd = isVdso ? OpenVdsoImage() : -1;
    pModule->m_pDwfl.reset(dwfl_begin(&g_callbacks));
    std::error_code error;
    // Other pseudo-files hold nothing that has names, and a pipe would be waited for.
    const bool isFile = path.starts_with('/') && std::filesystem::is_regular_file(path, error);
    if (pModule->m_pDwfl == nullptr || (isVdso ? fd < 0 : !isFile))
    {
        return false;
    }
    pModule->m_pModule = dwfl_report_offline(pModule->m_pDwfl.get(), path.c_str(), path.c_str(), fd);
    dwfl_report_end(pModule->m_pDwfl.get(), nullptr, nullptr);
    if (pModule->m_pModule == nullptr)
    {
        return false;
    }
    ReadSegments(pModule);
    return true;
}

const LoadedSegment* SegmentMapped(const ElfModule& module, uint64_t mappingSize)
{
    const auto sameSize =
        std::find_if(module.m_code.begin(), module.m_code.end(),
                     [mappingSize](const LoadedSegment& segment) { return segment.m_size == mappingSize; });
    return sameSize != module.m_code.end() ? &*sameSize
           : module.m_code.empty()         ? nullptr
                                           : &module.m_code.front();
}

} // namespace qelix
