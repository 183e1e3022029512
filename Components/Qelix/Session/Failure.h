// A failure that ends the command: what to tell the user, and the status to leave with. Its text says what is
// wrong, then "; " and what to do about it; FailureJson takes the two apart there.
#pragma once

#include <fmt/format.h>
#include <stdexcept>
#include <string>
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

    // The file or directory that it is about: throw Failure(...).At(path).
    Failure&& At(std::string path) &&
    {
        m_path = std::move(path);
        return std::move(*this);
    }

    int m_status;
    std::string m_path;
};

// One line of JSON with code, status, message, hint and path; what is not known is null.
std::string FailureJson(const Failure& failure);

} // namespace qelix
