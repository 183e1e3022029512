// Finds what a command names before anything is made for it.
#pragma once

#include <string>

namespace qelix
{

// The file that execvp(3) would run for this name, always with a '/'. Fails with status 127 when there is
// none and 126 when it cannot be executed.
std::string FindProgram(const std::string& name);

// The agent beside this executable: ../lib from the folder it lies in.
std::string FindAgent();

} // namespace qelix
