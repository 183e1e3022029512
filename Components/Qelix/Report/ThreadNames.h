// The names that the threads of a process were given in the course of time.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace qelix
{

// A name that a thread was given at some time.
struct NameFact
{
    int32_t m_tid; // -1: another thread gave it to the one that has this handle
    uint64_t m_pthreadId;
    uint64_t m_time;
    std::string m_name;
};

// The last name of each thread.
std::unordered_map<int32_t, std::string> LastNames(std::vector<NameFact> names);

} // namespace qelix
