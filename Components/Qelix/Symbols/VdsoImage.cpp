#include "Symbols/VdsoImage.h"

#include <elf.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <unistd.h>

namespace qelix
{

int OpenVdsoImage()
{
    const unsigned long address = getauxval(AT_SYSINFO_EHDR);
    if (address == 0)
    {
        return -1;
    }
    const auto* pHeader = reinterpret_cast<const Elf64_Ehdr*>(address);
    // The section headers are its end.
    const size_t size = pHeader->e_shoff + static_cast<size_t>(pHeader->e_shnum) * pHeader->e_shentsize;
    const int fd = memfd_create("vdso", MFD_CLOEXEC);
    if (fd >= 0 && write(fd, pHeader, size) != static_cast<ssize_t>(size))
    {
        close(fd);
        return -1;
    }
    return fd;
}

} // namespace qelix
