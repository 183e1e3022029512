// Prototypes deduced from libc's own headers, so that no row of a table can drift from them.
// Deduced from a function pointer, a type loses `noexcept` and attributes and keeps its exact parameters;
// of a variadic function only the named parameters remain.
#pragma once

#include <cstddef>
#include <tuple>

// Arguments travel in registers as the System V ABI for x86-64 says; the variadic calls lean on that.
#if !defined(__x86_64__) || !defined(__linux__)
#error "The agent is for Linux on x86-64."
#endif

#define ZORV_EXPORT __attribute__((visibility("default")))
#define ZORV_COLD __attribute__((cold, noinline))
#define ZORV_LIKELY(condition) __builtin_expect(!!(condition), 1)
#define ZORV_UNLIKELY(condition) __builtin_expect(!!(condition), 0)

template <typename Function> struct ZorvSignature;

template <typename R, typename... P> struct ZorvSignature<R (*)(P...)>
{
    using Result = R;
    using Pointer = R (*)(P...);
    using Parameters = std::tuple<P...>;
};
template <typename R, typename... P> struct ZorvSignature<R (*)(P...) noexcept> : ZorvSignature<R (*)(P...)>
{
};
template <typename R, typename... P> struct ZorvSignature<R (*)(P..., ...)> : ZorvSignature<R (*)(P...)>
{
};
template <typename R, typename... P>
struct ZorvSignature<R (*)(P..., ...) noexcept> : ZorvSignature<R (*)(P...)>
{
};

template <typename Function> using ZorvResult = typename ZorvSignature<Function>::Result;
template <typename Function> using ZorvPointer = typename ZorvSignature<Function>::Pointer;
template <typename Function, std::size_t index>
using ZorvParameter = std::tuple_element_t<index, typename ZorvSignature<Function>::Parameters>;

// Parameter lists and argument lists of a function of `type` with 0 to 7 parameters. The optional words of a
// variadic call are named parameters here: they sit in the same registers, and the untraced call stays a jump.
#define ZORV_PARAMETERS_0(type)
#define ZORV_PARAMETERS_1(type) ZorvParameter<type, 0> a0
#define ZORV_PARAMETERS_2(type) ZORV_PARAMETERS_1(type), ZorvParameter<type, 1> a1
#define ZORV_PARAMETERS_3(type) ZORV_PARAMETERS_2(type), ZorvParameter<type, 2> a2
#define ZORV_PARAMETERS_4(type) ZORV_PARAMETERS_3(type), ZorvParameter<type, 3> a3
#define ZORV_PARAMETERS_5(type) ZORV_PARAMETERS_4(type), ZorvParameter<type, 4> a4
#define ZORV_PARAMETERS_6(type) ZORV_PARAMETERS_5(type), ZorvParameter<type, 5> a5
#define ZORV_PARAMETERS_7(type) ZORV_PARAMETERS_6(type), ZorvParameter<type, 6> a6
#define ZORV_ARGUMENTS_0
#define ZORV_ARGUMENTS_1 a0
#define ZORV_ARGUMENTS_2 a0, a1
#define ZORV_ARGUMENTS_3 a0, a1, a2
#define ZORV_ARGUMENTS_4 a0, a1, a2, a3
#define ZORV_ARGUMENTS_5 a0, a1, a2, a3, a4
#define ZORV_ARGUMENTS_6 a0, a1, a2, a3, a4, a5
#define ZORV_ARGUMENTS_7 a0, a1, a2, a3, a4, a5, a6

#define ZORV_PARAMETERS_2_WORD(type) ZORV_PARAMETERS_2(type), unsigned long w0
#define ZORV_PARAMETERS_3_WORD(type) ZORV_PARAMETERS_3(type), unsigned long w0
#define ZORV_PARAMETERS_4_WORD(type) ZORV_PARAMETERS_4(type), unsigned long w0
#define ZORV_PARAMETERS_1_3WORDS(type)                                                                         \
    ZORV_PARAMETERS_1(type), unsigned long w0, unsigned long w1, unsigned long w2
#define ZORV_PARAMETERS_1_4WORDS(type) ZORV_PARAMETERS_1_3WORDS(type), unsigned long w3
#define ZORV_PARAMETERS_1_6WORDS(type) ZORV_PARAMETERS_1_4WORDS(type), unsigned long w4, unsigned long w5
#define ZORV_ARGUMENTS_2_WORD a0, a1, w0
#define ZORV_ARGUMENTS_3_WORD a0, a1, a2, w0
#define ZORV_ARGUMENTS_4_WORD a0, a1, a2, a3, w0
#define ZORV_ARGUMENTS_1_3WORDS a0, w0, w1, w2
#define ZORV_ARGUMENTS_1_4WORDS a0, w0, w1, w2, w3
#define ZORV_ARGUMENTS_1_6WORDS a0, w0, w1, w2, w3, w4, w5
