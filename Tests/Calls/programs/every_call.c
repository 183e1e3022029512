// Makes every interposed call that does no harm, with good and bad outcomes, and tells after all of them what
// came of each. Runs in an empty directory. With an argument, waits for the end of its standard input first.
#include "every_call.h"
#include <dlfcn.h>
#include <stdarg.h>
#include <sys/syscall.h>

struct Text
{
    char m_bytes[1 << 17];
    size_t m_length;
};

// Nothing is written before the last call is made: writing is a call of the table.
static struct Text g_notes;
static struct Text g_expected;
static void* g_pLibc;

static void __attribute__((format(printf, 2, 0)))
Append(struct Text* pText, const char* pFormat, va_list arguments)
{
    size_t room = sizeof(pText->m_bytes) - pText->m_length;
    int length = vsnprintf(pText->m_bytes + pText->m_length, room, pFormat, arguments);
    if (length < 0 || (size_t)length >= room)
    {
        abort();
    }
    pText->m_length += (size_t)length;
}

void Note(const char* pFormat, ...)
{
    va_list arguments;
    va_start(arguments, pFormat);
    Append(&g_notes, pFormat, arguments);
    va_end(arguments);
}

static void __attribute__((format(printf, 1, 2))) Expect(const char* pFormat, ...)
{
    va_list arguments;
    va_start(arguments, pFormat);
    Append(&g_expected, pFormat, arguments);
    va_end(arguments);
}

void NoteCall(const char* pName, const char* pArguments, long result, int error)
{
    Note("%s(%s) = %ld, errno %d\n", pName, pArguments, result, error);
}

void NoteKind(const char* pName, const char* pArguments, long result, int error)
{
    const char* pKind = result == -1 ? "all ones" : result < 0 ? "negative" : result == 0 ? "zero" : "positive";
    Note("%s(%s) is %s, errno %d\n", pName, pArguments, pKind, error);
}

void NoteVoid(const char* pName, const char* pArguments, int error)
{
    Note("%s(%s), errno %d\n", pName, pArguments, error);
}

void ExpectRecord(const char* pName, uint64_t value, int result)
{
    Expect("@ %s %lu %lu %d\n", pName, (unsigned long)dlsym(g_pLibc, pName), (unsigned long)value, result);
}

static void WaitForEndOfInput(void)
{
    char byte;
    while (syscall(SYS_read, STDIN_FILENO, &byte, 1) > 0)
    {
    }
}

static int Print(const struct Text* pText)
{
    size_t at = 0;
    while (at < pText->m_length)
    {
        long written = syscall(SYS_write, STDOUT_FILENO, pText->m_bytes + at, pText->m_length - at);
        if (written <= 0)
        {
            return 0;
        }
        at += (size_t)written;
    }
    return 1;
}

int main(int count, char** ppArguments)
{
    (void)ppArguments;
    g_pLibc = dlopen("libc.so.6", RTLD_NOW | RTLD_NOLOAD);
    if (count > 1)
    {
        WaitForEndOfInput();
    }
    CallFiles();
    CallReadsAndWrites();
    CallSockets();
    CallMessages();
    CallMemory();
    CallProcesses();
    CallThreads();
    CallWaits();
    return Print(&g_notes) && Print(&g_expected) ? 8 : 1;
}
