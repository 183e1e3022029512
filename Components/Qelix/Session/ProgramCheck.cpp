#include "Session/ProgramCheck.h"

#include "Session/Failure.h"

#include <algorithm>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <string_view>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace qelix
{
namespace
{

constexpr int ZORV_MOST_INTERPRETERS = 5; // one that names itself must not hold us for ever
constexpr std::size_t ZORV_FIRST_LINE_SIZE = 256;
constexpr const char* ZORV_SHELL = "/bin/sh";

std::string BytesAt(int fd, off_t offset, std::size_t size)
{
    std::string bytes(size, '\0');
    const ssize_t count = pread(fd, bytes.data(), size, offset);
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return bytes;
}

struct OpenFile
{
    explicit OpenFile(const std::string& path) : m_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    ~OpenFile()
    {
        if (m_fd >= 0)
        {
            close(m_fd);
        }
    }

    int m_fd;
};

bool IsElf(std::string_view head)
{
    return head.starts_with(std::string_view(ELFMAG, SELFMAG));
}

std::string FirstBytes(const std::string& path)
{
    const OpenFile file(path);
    return file.m_fd < 0 ? "" : BytesAt(file.m_fd, 0, ZORV_FIRST_LINE_SIZE);
}

// The word behind "#!"; empty when there is none.
std::string InterpreterIn(std::string_view head)
{
    if (!head.starts_with("#!"))
    {
        return "";
    }
    const std::string_view line = head.substr(2, head.find('\n') - 2);
    const std::size_t begin = line.find_first_not_of(" \t");
    if (begin == std::string_view::npos)
    {
        return "";
    }
    const std::string_view word = line.substr(begin);
    return std::string(word.substr(0, word.find_first_of(" \t\r")));
}

const char* ArchitectureName(uint16_t machine, unsigned char elfClass)
{
    switch (machine)
    {
    case EM_386:
        return "32-bit x86";
    case EM_X86_64:
        return elfClass == ELFCLASS64 ? "x86-64" : "x32";
    case EM_AARCH64:
        return "64-bit ARM";
    case EM_ARM:
        return "32-bit ARM";
    case EM_RISCV:
        return "RISC-V";
    case EM_PPC64:
        return "64-bit POWER";
    case EM_S390:
        return "s390";
    default:
        return "another architecture";
    }
}

std::vector<Elf64_Phdr> ProgramHeaders(int fd, const Elf64_Ehdr& header)
{
    std::vector<Elf64_Phdr> headers(header.e_phentsize == sizeof(Elf64_Phdr) ? header.e_phnum : 0);
    const std::size_t size = headers.size() * sizeof(Elf64_Phdr);
    const std::string bytes = BytesAt(fd, static_cast<off_t>(header.e_phoff), size);
    if (bytes.size() != size)
    {
        return {};
    }
    if (size != 0)
    {
        std::memcpy(headers.data(), bytes.data(), size);
    }
    return headers;
}

std::string LoaderReason(int fd, const Elf64_Ehdr& header)
{
    for (const Elf64_Phdr& segment : ProgramHeaders(fd, header))
    {
        if (segment.p_type != PT_INTERP)
        {
            continue;
        }
        const std::string loader =
            BytesAt(fd, static_cast<off_t>(segment.p_offset), std::min<std::size_t>(segment.p_filesz, 4096));
        if (loader.find("ld-musl") != std::string::npos)
        {
            return "is linked with another C library (musl), and the agent needs glibc; use a build for glibc";
        }
        return "";
    }
    return "is statically linked: no loader runs that could take the agent into it; link it dynamically";
}

// The kernel changes ids only where nothing forbids it, and the loader ignores LD_PRELOAD only where they
// differ from the real ones.
std::string PrivilegeReason(int fd)
{
    struct stat status;
    struct statvfs mount;
    if (fstat(fd, &status) != 0 || prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 1 ||
        (fstatvfs(fd, &mount) == 0 && (mount.f_flag & ST_NOSUID) != 0))
    {
        return "";
    }
    constexpr const char* pRemedy =
        "and the loader then ignores LD_PRELOAD; run a copy without that bit, or run qelix "
        "as the user it changes to";
    if ((status.st_mode & S_ISUID) != 0 && status.st_uid != getuid())
    {
        return fmt::format("is set-user-id, {}", pRemedy);
    }
    constexpr mode_t setGid = S_ISGID | S_IXGRP;
    if ((status.st_mode & setGid) == setGid && status.st_gid != getgid())
    {
        return fmt::format("is set-group-id, {}", pRemedy);
    }
    if (getuid() != 0 && fgetxattr(fd, "security.capability", nullptr, 0) > 0)
    {
        return "has file capabilities, and the loader then ignores LD_PRELOAD; run a copy without them";
    }
    return "";
}

std::string ElfReason(int fd, const std::string& head)
{
    Elf64_Ehdr header;
    if (head.size() < sizeof(header))
    {
        return ""; // the kernel says what is wrong with it
    }
    std::memcpy(&header, head.data(), sizeof(header));
    if (header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_ident[EI_DATA] != ELFDATA2LSB ||
        header.e_machine != EM_X86_64)
    {
        return fmt::format("is a program for {}, and the agent is for x86-64",
                           ArchitectureName(header.e_machine, header.e_ident[EI_CLASS]));
    }
    if (std::string reason = LoaderReason(fd, header); !reason.empty())
    {
        return reason;
    }
    return PrivilegeReason(fd);
}

} // namespace

std::string ExecutedFile(const std::string& path)
{
    std::string file = path;
    for (int i = 0; i < ZORV_MOST_INTERPRETERS; ++i)
    {
        const std::string head = FirstBytes(file);
        if (head.empty() || IsElf(head))
        {
            break;
        }
        const std::string interpreter = InterpreterIn(head);
        file = interpreter.empty() ? ZORV_SHELL : interpreter;
    }
    return file;
}

std::string UntraceableReason(const std::string& path)
{
    const std::string executed = ExecutedFile(path);
    const OpenFile file(executed);
    const std::string head = file.m_fd < 0 ? "" : BytesAt(file.m_fd, 0, ZORV_FIRST_LINE_SIZE);
    std::string reason = IsElf(head) ? ElfReason(file.m_fd, head) : "";
    if (reason.empty() || executed == path)
    {
        return reason;
    }
    return fmt::format("is a script for {}, which {}", executed, reason);
}

void RequireTraceable(const std::string& path)
{
    if (const std::string reason = UntraceableReason(path); !reason.empty())
    {
        throw Failure(ZORV_FAILURE_CANNOT_TRACE, "cannot trace {}: it {}", path, reason).At(path);
    }
}

void RequireTraceablePreloads(const char* pPreloads)
{
    if (pPreloads != nullptr && strstr(pPreloads, "libjemalloc.so") != nullptr)
    {
        throw Failure(
            ZORV_FAILURE_CANNOT_TRACE,
            "cannot trace with libjemalloc.so in LD_PRELOAD, which is {}: take it out, or only sample "
            "(--min all=off)",
            pPreloads);
    }
}

} // namespace qelix
