#include "FuzzFolder.h"

#include "Session/SessionDirectory.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

namespace
{

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

std::string_view TextOf(const uint8_t* pData, std::size_t size)
{
    return {reinterpret_cast<const char*>(pData), size};
}
