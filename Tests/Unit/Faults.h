// Faults by name. The test program defines the functions that the agent calls through the dynamic symbol table,
// and stands ahead of the agent in the lookup order: each definition passes the call on to the agent's own
// function (or to libc's, for the loader's interface) unless a test has replaced it.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace faults
{

using Word = uint64_t;

// The first six words travel in registers, the others are what lies on the stack: garbage where a function has
// fewer parameters, but always readable and harmless to pass on.
using Words = std::array<Word, 10>;

struct Armed;

struct Call
{
    const char* m_pName;
    Words m_words;
    long m_number;  // the first call after the replacement is 1
    Armed* m_pNext; // the replacement that this one covers, null when the real function comes next

    Word PassOn() const;

    template <class T> T Arg(int index) const
    {
        return (T)m_words[index];
    }
};

using Action = std::function<Word(const Call&)>;

// Replaces a function for the life of this object. Replacements of one name nest.
class Replace
{
public:
    Replace(const char* pName, Action action);
    ~Replace();
    Replace(const Replace&) = delete;
    Replace& operator=(const Replace&) = delete;

    long Calls() const;

private:
    std::unique_ptr<Armed> m_pArmed;
};

// Actions: fail always, fail on one call only (counted from 1), or fail from one call on.
Action Fails(Word result, int error = 0);
Action FailsOn(long number, Word result, int error = 0);
Action FailsFrom(long number, Word result, int error = 0);

// Every memory request of a kind fails, whichever allocating function the agent makes it with.
class NoMemory
{
public:
    // Requests of at least `minSize` and less than `maxSize` bytes fail, after `spare` of them succeeded.
    explicit NoMemory(size_t minSize = 0, size_t maxSize = SIZE_MAX, long spare = 0);
    long Refused() const;

private:
    std::shared_ptr<std::array<long, 2>> m_pCounts; // requests seen, requests refused
    std::vector<std::unique_ptr<Replace>> m_replaced;
};

// The order in which the agent calls these names, with the arguments; every call is passed on.
class CallLog
{
public:
    explicit CallLog(std::initializer_list<const char*> names);

    const std::vector<Call>& Calls() const;
    std::vector<std::string> Names() const;
    void Clear();

private:
    std::shared_ptr<std::vector<Call>> m_pCalls;
    std::vector<std::unique_ptr<Replace>> m_replaced;
};

// Where the agent's own functions are looked up; set as soon as the agent is mapped.
void SetAgentPath(const char* pPath);

// libc's own definition, past the replacement that this program exports.
void* FindInLibc(const char* pName);

} // namespace faults
