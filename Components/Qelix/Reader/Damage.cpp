#include "Reader/Damage.h"

#include "Reader/RecordNames.h"

#include <fmt/format.h>

namespace qelix
{

const char* DamageRemedy(DamageKind kind)
{
    switch (kind)
    {
    case ZORV_DAMAGE_UNREADABLE:
        return "check that the file exists, is a regular file and may be read";
    case ZORV_DAMAGE_UNKNOWN_FILE:
        return "name a .umt, .ums or .meta file from the trace, sample or metadata folder of a session";
    case ZORV_DAMAGE_VERSION:
        return "read it with the qelix that came with the agent that wrote it";
    case ZORV_DAMAGE_TRUNCATED:
        return "the program was killed, is still running, or the disk was full; the records before this point "
               "are whole";
    case ZORV_DAMAGE_CORRUPT:
        break;
    }
    return "the records before this point can be used; record the session again for the rest";
}

std::string DamageMessage(const Damage& damage)
{
    return fmt::format("{}: byte offset {}: {}; {}", PrintableText(damage.m_path), damage.m_offset,
                       damage.m_reason, DamageRemedy(damage.m_kind));
}

} // namespace qelix
