// A failure that ends the command: what to tell the user, and the status to leave with. Its text says what is
// wrong, then "; " and what to do about it; FailureJson takes the two apart there.
#pragma once

#include <cstdint>
#include <fmt/format.h>
#include <stdexcept>
#include <string>
#include <utility>

namespace qelix
{

constexpr int ZORV_STATUS_DAMAGED = 1;         // what was to be read is not there, not whole, or has no answer
constexpr int ZORV_STATUS_OWN_FAILURE = 125;   // ours, not the program's
constexpr int ZORV_STATUS_NOT_STARTED = 126;   // the program is there and cannot be run or traced
constexpr int ZORV_STATUS_NOT_FOUND = 127;     // there is no such program
constexpr int ZORV_STATUS_SIGNAL_OFFSET = 128; // plus the signal's number

enum FailureCode : uint8_t
{
    ZORV_FAILURE_OTHER,
    ZORV_FAILURE_USAGE,       // the command line
    ZORV_FAILURE_NO_SESSION,  // none where it was said to be
    ZORV_FAILURE_DAMAGED,     // a file cannot be read to its end
    ZORV_FAILURE_NO_DATA,     // nothing of what was asked for is in it
    ZORV_FAILURE_NOT_RUNNING, // it cannot be steered any more
    ZORV_FAILURE_EXISTS,      // what was to be made is there already
    ZORV_FAILURE_CANNOT_WRITE,
    ZORV_FAILURE_CANNOT_START, // the machine or the set-up does not let a recording begin
    ZORV_FAILURE_CANNOT_TRACE, // the program would run without the agent
    ZORV_FAILURE_CANNOT_RUN,   // the program does not run at all
    ZORV_FAILURE_NOT_FOUND,    // there is no such program
};

int StatusOf(FailureCode code);

struct Failure : std::runtime_error
{
    template <typename... Args>
    Failure(FailureCode code, fmt::format_string<Args...> format, Args&&... args)
        : std::runtime_error(fmt::format(format, std::forward<Args>(args)...)), m_code(code)
    {
    }

    // The file or directory that it is about: throw Failure(...).At(path).
    Failure&& At(std::string path) &&
    {
        m_path = std::move(path);
        return std::move(*this);
    }

    FailureCode m_code;
    std::string m_path;
};

// One line of JSON with code, status, message, hint and path; what is not known is null.
std::string FailureJson(const Failure& failure);

} // namespace qelix
