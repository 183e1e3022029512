// What is to be known of a process before its records are chosen.
#pragma once

#include "Report/ClockShift.h"
#include "Report/ProcessFiles.h"

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>

namespace qelix
{

struct NamesOfProcess
{
    int64_t m_pid = 0;
    std::unordered_map<int32_t, std::string> m_names; // the last one of each thread, empty where none is told

    std::string NameOf(int64_t tid) const;
};

NamesOfProcess ReadNames(const ProcessFiles& files);

// Of all the files: the first time that a record of theirs tells; 0 without any.
uint64_t FirstTime(const std::map<std::string, ProcessFiles>& filesOf, const ClockShifts& shifts);

} // namespace qelix
