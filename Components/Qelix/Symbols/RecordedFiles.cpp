#include "Symbols/RecordedFiles.h"

#include "Symbols/SymbolFile.h"

#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace qelix
{
namespace
{

bool IsThisBoot(const std::string& bootId)
{
    std::string here;
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::getline(file, here);
    return !here.empty() && here == bootId;
}

} // namespace

FileMatch MatchOf(const SymbolFile& file, const RecordedFiles& recorded)
{
    const auto noted = recorded.m_buildIds.find(file.m_path);
    if (noted != recorded.m_buildIds.end() && !file.m_buildId.empty())
    {
        const FileMatch otherwise = file.m_path == ZORV_VDSO ? ZORV_FILE_NOT_HERE : ZORV_FILE_CHANGED;
        return noted->second == file.m_buildId ? ZORV_FILE_SAME : otherwise;
    }
    if (file.m_path == ZORV_VDSO)
    {
        return IsThisBoot(recorded.m_bootId) ? ZORV_FILE_SAME : ZORV_FILE_NOT_HERE;
    }
    if (!file.m_isReadable)
    {
        return access(file.m_path.c_str(), R_OK) == 0 ? ZORV_FILE_NOT_CODE : ZORV_FILE_MISSING;
    }
    struct stat status;
    const bool isNewer = recorded.m_startTime && stat(file.m_path.c_str(), &status) == 0 &&
                         status.st_mtim.tv_sec > *recorded.m_startTime;
    return isNewer ? ZORV_FILE_NEWER : ZORV_FILE_SAME;
}

const char* MatchText(FileMatch match)
{
    switch (match)
    {
    case ZORV_FILE_CHANGED:
        return "another build than the one that ran: names and lines are wrong; put the old file back";
    case ZORV_FILE_NEWER:
        return "written since the run began: names and lines may be wrong; put the old file back or record "
               "again";
    case ZORV_FILE_MISSING:
        return "the file is gone or cannot be read; put it back";
    case ZORV_FILE_NOT_CODE:
        return "not a file with code that can be read; put the right one back";
    case ZORV_FILE_NOT_HERE:
        return "code of a kernel that no longer runs, or of another machine; look at the session where and "
               "while "
               "that one runs";
    case ZORV_FILE_SAME:
        break;
    }
    return nullptr;
}

} // namespace qelix
