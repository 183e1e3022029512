#include "Reader/RecordNames.h"

#include <array>
#include <cstring>
#include <fmt/format.h>

namespace qelix
{
namespace
{

constexpr CallKind g_callKinds[] = {
    {ZORV_UMT_RECORD_PTHREAD, ZORV_PTHREAD_LOCK_MUTEX, "mutex", true},
    {ZORV_UMT_RECORD_PTHREAD, ZORV_PTHREAD_UNLOCK_MUTEX, "mutex-unlock", false},
    {ZORV_UMT_RECORD_PTHREAD, ZORV_PTHREAD_WAIT_CV, "condition", true},
    {ZORV_UMT_RECORD_PTHREAD, ZORV_PTHREAD_SIGNAL_CV, "condition-signal", false},
    {ZORV_UMT_RECORD_PTHREAD, ZORV_PTHREAD_LOCK_RW, "rwlock", true},
    {ZORV_UMT_RECORD_PTHREAD, ZORV_PTHREAD_UNLOCK_RW, "rwlock-unlock", false},
    {ZORV_UMT_RECORD_PTHREAD, ZORV_PTHREAD_LOCK_SPIN, "spinlock", true},
    {ZORV_UMT_RECORD_PTHREAD, ZORV_PTHREAD_UNLOCK_SPIN, "spinlock-unlock", false},
    {ZORV_UMT_RECORD_PTHREAD, ZORV_PTHREAD_WAIT_BARRIER, "barrier", true},
    {ZORV_UMT_RECORD_PTHREAD, ZORV_PTHREAD_WAIT_SEMAPHORE, "semaphore", true},
    {ZORV_UMT_RECORD_PTHREAD, ZORV_PTHREAD_POST_SEMAPHORE, "semaphore-post", false},
    {ZORV_UMT_RECORD_PTHREAD, ZORV_PTHREAD_CREATE, "create", false},
    {ZORV_UMT_RECORD_PTHREAD, ZORV_PTHREAD_JOIN, "join", false},
    {ZORV_UMT_RECORD_PTHREAD, ZORV_PTHREAD_EXIT, "exit", false},
    {ZORV_UMT_RECORD_PTHREAD, ZORV_PTHREAD_YIELD, "yield", false},
    {ZORV_UMT_RECORD_PTHREAD, ZORV_PTHREAD_CANCEL, "cancel", false},
    {ZORV_UMT_RECORD_SYSCALL, ZORV_SYSCALL_TYPE_SLEEP, "sleep", false},
    {ZORV_UMT_RECORD_SYSCALL, ZORV_SYSCALL_TYPE_EVENT_WAIT, "wait", false},
    {ZORV_UMT_RECORD_SYSCALL, ZORV_SYSCALL_TYPE_RESOURCE_WAIT, "lock", false},
    {ZORV_UMT_RECORD_SYSCALL, ZORV_SYSCALL_TYPE_IO_SYNC, "io-sync", false},
    {ZORV_UMT_RECORD_SYSCALL, ZORV_SYSCALL_TYPE_IO, "io", false},
    {ZORV_UMT_RECORD_SYSCALL, ZORV_SYSCALL_TYPE_OTHER, "other", false},
};

constexpr std::size_t ZORV_REC_TYPES = 4;
constexpr std::size_t ZORV_SUB_TYPES = 17;

using KindIndex = std::array<std::array<const CallKind*, ZORV_SUB_TYPES>, ZORV_REC_TYPES>;

// Every record that is read asks for its kind.
constexpr KindIndex MakeKindIndex()
{
    KindIndex index = {};
    for (const CallKind& kind : g_callKinds)
    {
        index.at(kind.m_recType).at(kind.m_subType) = &kind;
    }
    return index;
}

constexpr KindIndex g_kindIndex = MakeKindIndex();

// Record types by number.
constexpr std::array g_traceTypes = {"none", "pthread", "memory",   "syscall",
                                     "proc", "mmap",    "metadata", "thread-end"};
constexpr std::array g_sampleTypes = {"none", "proc", "mmap", "sample", "events", "thread-end"};
constexpr std::array g_metadataTypes = {"mmap", "proc", "kernel-function", "device-info"};

std::span<const char* const> TypeNames(FileKind kind)
{
    switch (kind)
    {
    case ZORV_FILE_TRACE:
        return g_traceTypes;
    case ZORV_FILE_SAMPLE:
        return g_sampleTypes;
    case ZORV_FILE_METADATA:
        break;
    }
    return g_metadataTypes;
}

// Length of the well-formed UTF-8 sequence of two bytes or more at the start of the text, or 0.
std::size_t Utf8Length(std::string_view text)
{
    const auto first = static_cast<unsigned char>(text[0]);
    const std::size_t length = first >= 0xC2 && first <= 0xDF   ? 2
                               : first >= 0xE0 && first <= 0xEF ? 3
                               : first >= 0xF0 && first <= 0xF4 ? 4
                                                                : 0;
    if (length == 0 || text.size() < length)
    {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i)
    {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80)
        {
            return 0;
        }
    }
    // U+0080 to U+009F are control characters too: a terminal may act on them.
    return first == 0xC2 && static_cast<unsigned char>(text[1]) < 0xA0 ? 0 : length;
}

} // namespace

std::span<const CallKind> CallKinds()
{
    return g_callKinds;
}

const CallKind* FindCallKind(uint16_t recType, uint16_t subType)
{
    return recType < ZORV_REC_TYPES && subType < ZORV_SUB_TYPES ? g_kindIndex[recType][subType] : nullptr;
}

const char* FileKindName(FileKind kind)
{
    constexpr std::array names = {"trace", "sample", "metadata"};
    return names[kind];
}

const char* RecordTypeName(FileKind kind, uint16_t type)
{
    const auto names = TypeNames(kind);
    return type < names.size() ? names[type] : "unknown";
}

std::string_view RecordName(const ZorvUmtProcRecord& proc)
{
    return {proc.m_name, strnlen(proc.m_name, sizeof(proc.m_name))};
}

std::string PrintableText(std::string_view text)
{
    std::string printable;
    while (!text.empty())
    {
        const bool isAscii = text[0] >= 0x20 && text[0] < 0x7F;
        if (const std::size_t length = isAscii ? 1 : Utf8Length(text); length != 0)
        {
            printable += text.substr(0, length);
            text.remove_prefix(length);
            continue;
        }
        printable += fmt::format("\\x{:02x}", static_cast<unsigned char>(text[0]));
        text.remove_prefix(1);
    }
    return printable;
}

} // namespace qelix
