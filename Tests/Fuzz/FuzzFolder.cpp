#include "FuzzFolder.h"

#include "Session/SessionDirectory.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

namespace
{

constexpr const char* g_files[] = {"agent.conf",
                                   "session.json",
                                   ".log/log_host_42.txt",
                                   "trace/trace_host_42.umt",
                                   "sample/profile_host_42.ums",
                                   "metadata/metadata_host_42.meta"};

std::string_view TakeSection(std::string_view* pInput)
{
    uint32_t size = 0;
    std::memcpy(&size, pInput->data(), std::min(sizeof(size), pInput->size()));
    pInput->remove_prefix(std::min(sizeof(size), pInput->size()));
    const std::string_view section = pInput->substr(0, size);
    pInput->remove_prefix(section.size());
    return section;
}

struct FuzzFolder
{
    FuzzFolder()
    {
        char path[] = "/dev/shm/qelix-fuzz-XXXXXX";
        if (mkdtemp(path) == nullptr)
        {
            perror(path);
            abort();
        }
        m_path = qelix::MakeSessionDirectory(path).m_path;
    }
    ~FuzzFolder()
    {
        std::filesystem::remove_all(m_path);
    }

    std::string m_path;
};

} // namespace

const std::string& FuzzSessionPath()
{
    static const FuzzFolder folder;
    return folder.m_path;
}

void WriteFuzzFile(const std::string& name, std::string_view bytes)
{
    const std::string path = FuzzSessionPath() + "/" + name;
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
    {
        perror(path.c_str());
        abort();
    }
    close(fd);
}

void WriteFuzzSession(std::string_view input)
{
    for (const char* pFile : g_files)
    {
        WriteFuzzFile(pFile, TakeSection(&input));
    }
}

std::string_view TextOf(const uint8_t* pData, std::size_t size)
{
    return {reinterpret_cast<const char*>(pData), size};
}
