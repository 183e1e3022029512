// Stands in libc's place behind the agent: every interposed call, without doing anything. It notes the
// arguments that arrive and answers with the result and the errno that the program has ordered. Nothing is
// mounted, killed or moved.
//
// The object is linked against nothing and so has no symbol versions: it answers a look-up of any version.
#define _GNU_SOURCE
#include "../programs/fake.h"

extern int* __errno_location(void);

#define CALL(class, name, shape) NUMBER_##name,
enum
{
#include "../programs/calls.def"
    CALL_COUNT
};
#undef CALL

// The addresses of the stand-ins themselves; by their names, the agent's would be found.
#define CALL(class, name, shape) extern const char Fake_##name[] __attribute__((visibility("hidden")));
#include "../programs/calls.def"
#undef CALL

static const struct
{
    const char* m_pName;
    const void* m_pAddress;
} g_fakes[] = {
#define CALL(class, name, shape) {#name, Fake_##name},
#include "../programs/calls.def"
#undef CALL
};

struct FakeCall g_fakeCall;

const void* FakeAddress(const char* pName)
{
    for (int i = 0; i < CALL_COUNT; ++i)
    {
        int at = 0;
        while (pName[at] && pName[at] == g_fakes[i].m_pName[at])
        {
            ++at;
        }
        if (pName[at] == g_fakes[i].m_pName[at])
        {
            return g_fakes[i].m_pAddress;
        }
    }
    return 0;
}

__attribute__((used, visibility("hidden"))) long FakeAnswer(unsigned number, const long* pArguments,
                                                            const long* pStack)
{
    g_fakeCall.m_pName = g_fakes[number].m_pName;
    ++g_fakeCall.m_count;
    for (int i = 0; i < FAKE_REGISTERS; ++i)
    {
        g_fakeCall.m_seen[i] = pArguments[i];
    }
    g_fakeCall.m_seen[FAKE_REGISTERS] = *pStack;
    if (g_fakeCall.m_errno)
    {
        *__errno_location() = g_fakeCall.m_errno;
    }
    return g_fakeCall.m_result;
}

#define ENTRY_NUMBERED(name, number)                                                                           \
    __asm__(".text\n.globl " #name "\n.type " #name ",@function\n"                                             \
            ".hidden Fake_" #name "\n.globl Fake_" #name "\n" #name ":\nFake_" #name ":\n"                     \
            "movl $" #number ", %eax\n"                                                                        \
            "jmp FakeEntry\n");
#define ENTRY(name, number) ENTRY_NUMBERED(name, number)
#define CALL(class, name, shape) ENTRY(name, __COUNTER__)
#include "../programs/calls.def"
#undef CALL

// The six registers are laid down as an array; a seventh argument stands behind the return address.
__asm__(".text\n"
        "FakeEntry:\n"
        "push %r9\n push %r8\n push %rcx\n push %rdx\n push %rsi\n push %rdi\n"
        "movl %eax, %edi\n"
        "movq %rsp, %rsi\n"
        "leaq 56(%rsp), %rdx\n"
        "sub $8, %rsp\n"
        "call FakeAnswer\n"
        "add $56, %rsp\n"
        "ret\n");
