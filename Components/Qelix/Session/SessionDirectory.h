// One run of a program is one directory; this is how it is laid out.
#pragma once

#include "Session/Failure.h"

#include <cstdint>
#include <ctime>
#include <string>
#include <sys/types.h>
#include <vector>

namespace qelix
{

struct SessionDirectory
{
    std::string m_path;       // absolute
    bool m_isMade = false;    // it was not there before
    std::string m_configPath; // the same directory by a path that the agent's configuration can hold
    std::string
        m_newest; // what "qelix-last" beside it shall name: the session, or the job that it is a rank of
};

std::string LogFolder(const std::string& session);      // the agent's log, a file a process
std::string ErrorFolder(const std::string& session);    // a code for the launcher, a file a process
std::string TraceFolder(const std::string& session);    // .umt files
std::string SampleFolder(const std::string& session);   // .ums files
std::string MetadataFolder(const std::string& session); // .meta files
std::string ConfigurationFile(const std::string& session);
std::string RecordFilePath(const std::string& session);  // what qelix notes of the run
std::string SummaryFilePath(const std::string& session); // what one rank of a job leaves for the table of all

// "qelix-PROGRAM-DATE-TIME-PID", local time; what a configured path cannot hold is replaced in the program's
// name.
std::string DefaultSessionName(const std::string& program, time_t start, pid_t pid);

// Makes the directory and its folders. A directory that holds anything is refused: sessions are never mixed.
SessionDirectory MakeSessionDirectory(const std::string& path);

// "JOB/rank=N", one of the sessions of a parallel job, which share the directory JOB.
SessionDirectory MakeRankDirectory(const std::string& job, int64_t rank);

// Lets the link "qelix-last" beside the session point to it. Anything else of that name is left alone.
void LinkNewest(const SessionDirectory& session);

// Takes away what MakeSessionDirectory made, for a program that could not be started.
void RemoveSessionDirectory(const SessionDirectory& session);

// Regular files of a folder whose names end so, sorted by name. A folder that is missing has none.
std::vector<std::string> FilesIn(const std::string& folder, const std::string& ending);

// What to throw where a path was to be one, saying why it is none.
Failure NoSession(const std::string& path);

} // namespace qelix
