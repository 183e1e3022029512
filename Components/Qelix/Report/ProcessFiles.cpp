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

} // namespace qelix
