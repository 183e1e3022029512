// Sessions of many processes, ranks or hosts as one.
#pragma once

#include <string>
#include <vector>

namespace qelix
{

// The sessions that a path stands for: itself, or those of a job, JOB/rank=N, by rank. Fails when there is
// none.
std::vector<std::string> SessionsAt(const std::string& path);

struct MergeResult
{
    std::string m_path;
    std::size_t m_sessions = 0;
    std::size_t m_files = 0;
    std::vector<std::string> m_warnings; // what the merged session cannot be believed in
};

// Makes the directory, which must not be there yet, whole or not at all. Files are linked where the file system
// can, copied elsewhere; each gets the number of its session into its name: two hosts may have a process of the
// same id. session.json says under "merged" where they came from, and how far each one's clock is behind the
// first one's.
MergeResult MergeSessions(const std::string& out, const std::vector<std::string>& sessions);

// Where a session was recorded; empty when it does not say.
std::string HostOf(const std::string& session);

} // namespace qelix
