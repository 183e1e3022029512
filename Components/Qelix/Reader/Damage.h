// What a reader says about a file that it cannot read to its end: where, why, and what the user can do.
#pragma once

#include <cstdint>
#include <string>

namespace qelix
{

enum DamageKind
{
    ZORV_DAMAGE_UNREADABLE,   // the file cannot be opened or read
    ZORV_DAMAGE_UNKNOWN_FILE, // not one of the agent's files
    ZORV_DAMAGE_VERSION,      // written by an agent of another version
    ZORV_DAMAGE_TRUNCATED,    // ends inside a header or a record
    ZORV_DAMAGE_CORRUPT,      // holds bytes that no agent writes
};

struct Damage
{
    DamageKind m_kind;
    std::string m_path;
    uint64_t m_offset; // where the record or header begins that cannot be read
    std::string m_reason;
};

const char* DamageRemedy(DamageKind kind);

// One line: file name, byte offset, reason, remedy.
std::string DamageMessage(const Damage& damage);

} // namespace qelix
