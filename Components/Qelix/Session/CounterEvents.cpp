#include "Session/CounterEvents.h"

#include "Session/Failure.h"

#include <charconv>
#include <fstream>
#include <optional>
#include <unistd.h>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_MOST_EVENTS = 64;

std::string FirstLine(const std::string& path)
{
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

std::optional<uint64_t> ParseNumber(std::string_view text)
{
    const bool isHex = text.starts_with("0x");
    text.remove_prefix(isHex ? 2 : 0);
    uint64_t value = 0;
    const auto [pEnd, error] = std::from_chars(text.data(), text.data() + text.size(), value, isHex ? 16 : 10);
    return error == std::errc() && pEnd == text.data() + text.size() ? std::optional(value) : std::nullopt;
}

std::vector<std::string_view> Split(std::string_view text)
{
    std::vector<std::string_view> items;
    for (;;)
    {
        const std::size_t comma = text.find(',');
        items.push_back(text.substr(0, comma));
        if (comma == std::string_view::npos)
        {
            return items;
        }
        text.remove_prefix(comma + 1);
    }
}

// The low bits of the value go, in order, into the bits of each range.
uint64_t Deposit(uint64_t value, std::string_view ranges)
{
    uint64_t code = 0;
    for (const std::string_view range : Split(ranges))
    {
        const std::size_t dash = range.find('-');
        const uint64_t first = ParseNumber(range.substr(0, dash)).value_or(64);
        const uint64_t last = dash == range.npos ? first : ParseNumber(range.substr(dash + 1)).value_or(0);
        for (uint64_t bit = first; bit <= last && bit < 64; ++bit, value >>= 1)
        {
            code |= (value & 1) << bit;
        }
    }
    return code;
}

uint64_t CodeOf(std::string_view item, const std::string& pmuFolder)
{
    if (const std::optional<uint64_t> code = ParseNumber(item))
    {
        return *code;
    }
    const std::string terms =
        item.find('/') == item.npos ? FirstLine(fmt::format("{}/events/{}", pmuFolder, item)) : "";
    if (item.empty() || terms.empty())
    {
        throw Failure(ZORV_FAILURE_USAGE,
                      "--events: there is no event \"{}\"; name one of {}/events, or give its code as a number",
                      item, pmuFolder);
    }
    return EventCode(terms, pmuFolder);
}

} // namespace

std::string CorePmuFolder()
{
    return "/sys/bus/event_source/devices/cpu";
}

bool HasCounters(const std::string& pmuFolder)
{
    return access((pmuFolder + "/type").c_str(), R_OK) == 0;
}

uint64_t EventCode(std::string_view terms, const std::string& pmuFolder)
{
    constexpr std::string_view prefix = "config:";
    uint64_t code = 0;
    for (const std::string_view term : Split(terms))
    {
        const std::size_t equals = term.find('=');
        const std::string name(term.substr(0, equals));
        const auto value =
            equals == term.npos ? std::optional<uint64_t>(1) : ParseNumber(term.substr(equals + 1));
        const std::string format = FirstLine(fmt::format("{}/format/{}", pmuFolder, name));
        if (!value || !format.starts_with(prefix))
        {
            throw Failure(ZORV_FAILURE_USAGE,
                          "--events: this event needs \"{}\", which the agent cannot set; choose another event",
                          term);
        }
        code |= Deposit(*value, std::string_view(format).substr(prefix.size()));
    }
    return code;
}

std::vector<uint64_t> ParseEvents(const std::string& list, const std::string& pmuFolder)
{
    std::vector<uint64_t> events;
    for (const std::string_view item : Split(list))
    {
        events.push_back(CodeOf(item, pmuFolder));
    }
    if (events.size() > ZORV_MOST_EVENTS)
    {
        throw Failure(ZORV_FAILURE_USAGE, "--events: {} events, and the agent has room for {}", events.size(),
                      ZORV_MOST_EVENTS);
    }
    return events;
}

} // namespace qelix
