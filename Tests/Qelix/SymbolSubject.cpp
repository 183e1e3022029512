// What the tests look up names in. Exported: SubjectPlain, SubjectInlining, the aliases.
extern "C"
{
    __attribute__((noinline)) int SubjectPlain(int value)
    {
        asm volatile("nop; nop; nop; nop");
        return value + 1;
    }

    __attribute__((noinline)) int subject_alias(int value)
    {
        asm volatile("nop");
        return value + 2;
    }
    int subject_alias64(int) __attribute__((alias("subject_alias")));
    int __subject_alias(int) __attribute__((alias("subject_alias")));
    int __subject_alias64(int) __attribute__((alias("subject_alias")));
}

namespace subject
{
__attribute__((noinline)) int Overlay(int value, const char* pText)
{
    asm volatile("nop");
    return value + pText[0];
}

inline __attribute__((always_inline)) int Inner(int value)
{
    asm volatile(".globl subject_inlined_here\nsubject_inlined_here: .rept 8\n nop\n .endr" : "+r"(value));
    return value * 3;
}

static inline __attribute__((always_inline)) int Outer(int value)
{
    return Inner(value) + 5;
}

static inline __attribute__((always_inline)) int Lambda(int value)
{
    const auto add = [](int more) __attribute__((always_inline))
    {
        asm volatile(".globl subject_in_lambda\nsubject_in_lambda: nop\n nop" : "+r"(more));
        return more + 7;
    };
    return add(value);
}
} // namespace subject

static __attribute__((noinline)) int SubjectHidden(int value)
{
    asm volatile("nop");
    return value - 1;
}

extern "C" __attribute__((noinline)) int SubjectInlining(int value)
{
    return subject::Outer(value) + subject::Lambda(value) + SubjectHidden(value);
}

// As libc returns from a signal handler.
asm(".text\n.p2align 4\n.hidden subject_signal_return\n.globl subject_signal_return\nsubject_signal_return:\n"
    " mov $15, %rax\n syscall\n");
