// A failure that ends the command: what to tell the user, and the status to leave with.
#pragma once

#include <fmt/format.h>
#include <stdexcept>
#include <utility>

namespace qelix
{

constexpr int ZORV_STATUS_DAMAGED = 1;         // a file could not be read to its end
constexpr int ZORV_STATUS_OWN_FAILURE = 125;   // ours, not the program's
constexpr int ZORV_STATUS_NOT_STARTED = 126;   // the program is there and cannot be run or traced
constexpr int ZORV_STATUS_NOT_FOUND = 127;     // there is no such program
constexpr int ZORV_STATUS_SIGNAL_OFFSET = 128; // plus the signal's number

struct Failure : std::runtime_error
{
    template <typename... Args>
    Failure(int status, fmt::format_string<Args...> format, Args&&... args)
        : std::runtime_error(fmt::format(format, std::forward<Args>(args)...)), m_status(status)
    {
    }

    int m_status;
};

} // namespace qelix
