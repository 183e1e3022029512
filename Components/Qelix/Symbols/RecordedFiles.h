// Are the files that names come from those that were executed? What a run noted of them, and what they are now.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace qelix
{

struct SymbolFile;

// Of the run, as far as it was noted.
struct RecordedFiles
{
    std::map<std::string, std::string> m_buildIds; // by path, hex digits
    std::string m_bootId;                          // of the kernel
    std::optional<int64_t> m_startTime;            // seconds since 1970
};

enum FileMatch
{
    ZORV_FILE_SAME,     // as far as anybody can tell
    ZORV_FILE_CHANGED,  // it has another build-id than then
    ZORV_FILE_NEWER,    // it was written since the run began; no build-id tells whether it matters
    ZORV_FILE_MISSING,  // or not to be read
    ZORV_FILE_NOT_CODE, // neither a program nor a library
    ZORV_FILE_NOT_HERE, // the kernel's own code, of a boot that is over or another machine
};

FileMatch MatchOf(const SymbolFile& file, const RecordedFiles& recorded);

// In words, with what to do; null where there is nothing to say.
const char* MatchText(FileMatch match);

} // namespace qelix
