// Readable words for what the files hold as numbers.
#pragma once

#include "Reader/Records.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace qelix
{

// A kind of call: what a pthread record's or a system-call record's sub-type stands for.
struct CallKind
{
    uint16_t m_recType; // ZORV_UMT_RECORD_PTHREAD or ZORV_UMT_RECORD_SYSCALL
    uint16_t m_subType;
    const char* m_pName;
    bool m_isLock; // its lock address names an object that threads wait for
};

std::span<const CallKind> CallKinds();
const CallKind* FindCallKind(uint16_t recType, uint16_t subType); // null when there is none

const char* FileKindName(FileKind kind);
const char* RecordTypeName(FileKind kind, uint16_t type);

// The name in a proc record: zero-filled, but without a terminator when it fills the field.
std::string_view RecordName(const ZorvUmtProcRecord& proc);

// A text from a file made safe to print: bytes that could steer a terminal or break a line are shown as \xNN.
std::string PrintableText(std::string_view text);

} // namespace qelix
