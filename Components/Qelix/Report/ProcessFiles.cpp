#include "Report/ProcessFiles.h"

#include "Session/SessionDirectory.h"

#include <filesystem>

namespace qelix
{
namespace
{

std::string NameBehindKind(const std::string& path)
{
    const std::string name = std::filesystem::path(path).stem();
    return name.substr(name.find('_') + 1);
}

} // namespace

std::map<std::string, ProcessFiles> FilesOfProcesses(const std::string& session)
{
    std::map<std::string, ProcessFiles> files;
    for (const std::string& path : FilesIn(TraceFolder(session), ".umt"))
    {
        files[NameBehindKind(path)].m_trace = path;
    }
    for (const std::string& path : FilesIn(SampleFolder(session), ".ums"))
    {
        files[NameBehindKind(path)].m_sample = path;
    }
    for (const std::string& path : FilesIn(MetadataFolder(session), ".meta"))
    {
        if (const auto process = files.find(NameBehindKind(path)); process != files.end())
        {
            process->second.m_metadata = path;
        }
    }
    return files;
}

uint64_t BytesIn(const std::string& directory)
{
    uint64_t bytes = 0;
    std::error_code error;
    const auto options = std::filesystem::directory_options::skip_permission_denied;
    for (std::filesystem::recursive_directory_iterator at(directory, options, error), end; !error && at != end;
         at.increment(error))
    {
        std::error_code noSize; // a file that has gone meanwhile, or is none
        if (at->is_regular_file(noSize) && !at->is_symlink(noSize))
        {
            const std::uintmax_t size = at->file_size(noSize);
            bytes += noSize ? 0 : size;
        }
    }
    return bytes;
}

} // namespace qelix
