// Which files of a session belong to one process.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace qelix
{

// Paths; empty where the process has no such file.
struct ProcessFiles
{
    std::string m_trace;
    std::string m_sample;
    std::string m_metadata;
};

// One that there is: their names tell the same of the process.
inline const std::string& AnyFile(const ProcessFiles& files)
{
    return files.m_trace.empty() ? files.m_sample : files.m_trace;
}

// By what the names of a process's files have in common. Each is read with OpenRecordFile, as a stream.
std::map<std::string, ProcessFiles> FilesOfProcesses(const std::string& session);

// What the files under a directory measure together.
uint64_t BytesIn(const std::string& directory);

} // namespace qelix
