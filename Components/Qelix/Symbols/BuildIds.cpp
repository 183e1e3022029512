#include "Symbols/BuildIds.h"

#include "Reader/RecordFile.h"

#include <elfutils/libdwelf.h>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <libelf.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace qelix
{
namespace
{

void TakeModules(const std::string& path, std::map<std::string, std::string>* pBuildIds)
{
    const auto pFile = OpenRecordFile(path);
    Record record;
    while (NextRecord(pFile.get(), &record))
    {
        const auto* pMapping = std::get_if<MmapRecord>(&record.m_body);
        if (pMapping == nullptr || pBuildIds->contains(pMapping->m_path))
        {
            continue;
        }
        pBuildIds->emplace(pMapping->m_path, BuildIdOf(pMapping->m_path));
    }
}

} // namespace

std::string BuildIdOf(const std::string& path)
{
    // Paths come from files that anybody can make: a device or a pipe must not be opened in earnest.
    struct stat status;
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
    {
        return "";
    }
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
    {
        return "";
    }
    elf_version(EV_CURRENT);
    Elf* pElf = elf_begin(fd, ELF_C_READ, nullptr);
    const void* pBytes = nullptr;
    const ssize_t size = pElf != nullptr ? dwelf_elf_gnu_build_id(pElf, &pBytes) : 0;
    std::string digits;
    for (ssize_t i = 0; i < size; ++i)
    {
        digits += fmt::format("{:02x}", static_cast<const unsigned char*>(pBytes)[i]);
    }
    elf_end(pElf);
    close(fd);
    return digits;
}

std::map<std::string, std::string> BuildIdsOfModules(const std::string& metadataFolder)
{
    std::map<std::string, std::string> buildIds;
    std::error_code error;
    for (fs::directory_iterator entry(metadataFolder, error), end; !error && entry != end;
         entry.increment(error))
    {
        if (FileKindOf(entry->path()) && entry->is_regular_file(error))
        {
            TakeModules(entry->path(), &buildIds);
        }
    }
    std::erase_if(buildIds, [](const auto& entry) { return entry.second.empty(); });
    return buildIds;
}

} // namespace qelix
