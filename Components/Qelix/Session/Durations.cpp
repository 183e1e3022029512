#include "Session/Durations.h"

#include <charconv>

namespace qelix
{
namespace
{

struct Unit
{
    std::string_view m_name;
    uint64_t m_nanoseconds;
};

constexpr Unit g_units[] = {{"", 1},
                            {"ns", 1},
                            {"us", 1'000},
                            {"µs", 1'000},
                            {"ms", 1'000'000},
                            {"s", 1'000'000'000},
                            {"m", 60'000'000'000},
                            {"min", 60'000'000'000},
                            {"h", 3600'000'000'000}};

} // namespace

std::optional<uint64_t> ParseDuration(std::string_view text)
{
    uint64_t count = 0;
    const auto [pEnd, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (error != std::errc())
    {
        return std::nullopt;
    }
    const std::string_view name = text.substr(static_cast<std::size_t>(pEnd - text.data()));
    for (const Unit& unit : g_units)
    {
        uint64_t nanoseconds;
        if (unit.m_name == name && !__builtin_mul_overflow(count, unit.m_nanoseconds, &nanoseconds))
        {
            return nanoseconds;
        }
    }
    return std::nullopt;
}

} // namespace qelix
