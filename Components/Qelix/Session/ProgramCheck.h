// Can the dynamic loader take the agent into a program? Told from the file, before anything runs.
#pragma once

#include <string>

namespace qelix
{

// The file that the kernel maps for this one: itself, or the interpreter that its first line names, which may
// be a script too. Without an interpreter line a text is a program of sh.
std::string ExecutedFile(const std::string& path);

// Why a process that executes this file runs without the agent, in words that follow the file's name; empty
// when nothing speaks against it.
std::string UntraceableReason(const std::string& path);

// Fails with status 126 and the reason, for a program and for what is preloaded together with the agent.
void RequireTraceable(const std::string& path);
void RequireTraceablePreloads(const char* pPreloads);

} // namespace qelix
