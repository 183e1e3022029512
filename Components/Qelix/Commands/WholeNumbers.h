// Numbers on the command line.
#pragma once

#include <charconv>
#include <cstdint>
#include <fmt/format.h>
#include <optional>
#include <string>

namespace qelix
{

inline std::optional<uint64_t> ParseWhole(const std::string& text)
{
    uint64_t value;
    const auto [pEnd, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && pEnd == text.data() + text.size() ? std::optional(value) : std::nullopt;
}

// A check of CLI11, whose own conversion takes "-5" for a very large number: empty, or what is wrong.
inline std::string CheckWhole(const std::string& text)
{
    return ParseWhole(text) ? "" : fmt::format("{} is no whole number from 0 to {}", text, UINT64_MAX);
}

} // namespace qelix
