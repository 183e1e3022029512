// The names that the threads of a process were given in the course of time.
#pragma once

#include "Reader/RecordNames.h"

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

// What a record that names a thread says.
template <typename T> NameFact NameIn(const T& proc)
{
    return {proc.m_hdr.m_tid, proc.m_body.m_pthreadId, proc.m_hdr.m_startTime,
            std::string(RecordName(proc.m_body))};
}

// The last name of each thread.
std::unordered_map<int32_t, std::string> LastNames(std::vector<NameFact> names);

} // namespace qelix
