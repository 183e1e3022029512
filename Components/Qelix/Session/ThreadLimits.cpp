#include "Session/ThreadLimits.h"

#include "Session/ProgramCheck.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <fmt/ranges.h>
#include <gelf.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qelix
{
namespace
{

constexpr std::string_view g_namespaceCalls[] = {"unshare", "setns"};
constexpr std::string_view g_identityCalls[] = {"setuid",    "setgid",    "seteuid",   "setegid",
                                                "setreuid",  "setregid",  "setresuid", "setresgid",
                                                "setgroups", "initgroups"};
constexpr std::string_view g_capabilityCalls[] = {"capset", "cap_set_proc", "capng_apply"};

template <std::size_t Count>
void TakeIf(const std::string_view (&names)[Count], std::string_view name, std::vector<std::string>* pFound)
{
    const bool isListed = std::find(std::begin(names), std::end(names), name) != std::end(names);
    if (isListed && std::find(pFound->begin(), pFound->end(), name) == pFound->end())
    {
        pFound->emplace_back(name);
    }
}

void TakeImports(Elf* pElf, Elf_Scn* pSection, const GElf_Shdr& header, ThreadLimits* pLimits)
{
    Elf_Data* pData = elf_getdata(pSection, nullptr);
    const std::size_t count = header.sh_entsize != 0 ? header.sh_size / header.sh_entsize : 0;
    for (std::size_t i = 0; pData != nullptr && i < count; ++i)
    {
        GElf_Sym symbol;
        if (gelf_getsym(pData, static_cast<int>(i), &symbol) == nullptr || symbol.st_shndx != SHN_UNDEF)
        {
            continue;
        }
        if (const char* pName = elf_strptr(pElf, header.sh_link, symbol.st_name))
        {
            TakeIf(g_namespaceCalls, pName, &pLimits->m_namespaceCalls);
            TakeIf(g_identityCalls, pName, &pLimits->m_identityCalls);
            TakeIf(g_capabilityCalls, pName, &pLimits->m_capabilityCalls);
        }
    }
}

std::string NamespaceText(const ThreadLimits& limits)
{
    return fmt::format(
        "calls {}, which the kernel refuses for a user or mount namespace in a process with a second "
        "thread, and the agent has one",
        fmt::join(limits.m_namespaceCalls, " and "));
}

std::string IdentityText(const ThreadLimits& limits)
{
    return fmt::format(
        "calls {}, which ends a process whose threads do not all have the rights to follow, and the "
        "agent has a thread of its own",
        limits.m_identityCalls.front());
}

constexpr const char* ZORV_REMEDY = "record what it starts instead: put qelix run in front of that";

} // namespace

ThreadLimits ThreadLimitsOf(const std::string& path)
{
    ThreadLimits limits;
    struct stat status;
    const bool isPlain = stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    const int fd = isPlain ? open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK) : -1;
    if (fd < 0)
    {
        return limits;
    }
    elf_version(EV_CURRENT);
    Elf* pElf = elf_begin(fd, ELF_C_READ, nullptr);
    Elf_Scn* pSection = nullptr;
    while (pElf != nullptr && elf_kind(pElf) == ELF_K_ELF &&
           (pSection = elf_nextscn(pElf, pSection)) != nullptr)
    {
        GElf_Shdr header;
        if (gelf_getshdr(pSection, &header) != nullptr && header.sh_type == SHT_DYNSYM)
        {
            TakeImports(pElf, pSection, header, &limits);
        }
    }
    elf_end(pElf);
    close(fd);
    return limits;
}

std::string SecondThreadReason(const std::string& path, int waitStatus)
{
    const ThreadLimits limits = ThreadLimitsOf(ExecutedFile(path));
    if (WIFEXITED(waitStatus) && WEXITSTATUS(waitStatus) != 0 && !limits.m_namespaceCalls.empty())
    {
        return fmt::format("a likely cause: {} {}; {}", path, NamespaceText(limits), ZORV_REMEDY);
    }
    if (WIFSIGNALED(waitStatus) && WTERMSIG(waitStatus) == SIGABRT && !limits.m_identityCalls.empty())
    {
        return fmt::format("a likely cause: {} {}; {}", path, IdentityText(limits), ZORV_REMEDY);
    }
    return "";
}

std::string SecondThreadWarning(const std::string& path)
{
    const ThreadLimits limits = ThreadLimitsOf(ExecutedFile(path));
    if (!limits.m_namespaceCalls.empty())
    {
        return fmt::format("it {}; if it fails, {}", NamespaceText(limits), ZORV_REMEDY);
    }
    if (!limits.m_identityCalls.empty() && !limits.m_capabilityCalls.empty())
    {
        return fmt::format("it {}; if it fails, {}", IdentityText(limits), ZORV_REMEDY);
    }
    return "";
}

} // namespace qelix
