// What could be named of each module that a session's addresses lie in, and why not.
#pragma once

#include "Symbols/Symbolizer.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qelix
{

struct ModuleFacts
{
    std::string m_path;
    FileMatch m_match = ZORV_FILE_SAME;
    std::string m_buildId;         // of the file as it is now; empty: none
    std::string m_recordedBuildId; // of the run; empty: not noted
    bool m_hasSymbols = false;
    bool m_hasLocalSymbols = false;
    bool m_hasLines = false;
    uint64_t m_addresses = 0; // distinct ones that were looked up
    uint64_t m_named = 0;
    uint64_t m_withLine = 0;
};

// Most addresses first. Only modules that something was looked up in.
std::vector<ModuleFacts> ModulesOf(const Symbolizer& symbolizer);

// Why not every address has a name and a line, and what to do; empty when there is nothing to say.
std::vector<std::string> RemarksOn(const ModuleFacts& module);

} // namespace qelix
