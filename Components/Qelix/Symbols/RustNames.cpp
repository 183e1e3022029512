#include "Symbols/RustNames.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fmt/format.h>

namespace qelix
{

namespace
{

constexpr std::size_t ZORV_HASH_SIZE = 17; // 'h' and digits

struct Escape
{
    std::string_view m_code;
    std::string_view m_text;
};

constexpr Escape g_escapes[] = {{"SP", "@"}, {"BP", "*"}, {"RF", "&"}, {"LT", "<"},
                                {"GT", ">"}, {"LP", "("}, {"RP", ")"}, {"C", ","}};

bool IsHash(std::string_view part)
{
    return part.size() == ZORV_HASH_SIZE && part.front() == 'h' &&
           part.find_first_not_of("0123456789abcdef", 1) == part.npos;
}

// The text of "LT" or "u20"; empty when it is none.
std::string EscapedText(std::string_view code)
{
    for (const Escape& escape : g_escapes)
    {
        if (code == escape.m_code)
        {
            return std::string(escape.m_text);
        }
    }
    if (code.size() < 2 || code.size() > 3 || code.front() != 'u')
    {
        return "";
    }
    const auto value = static_cast<char>(strtoul(std::string(code.substr(1)).c_str(), nullptr, 16));
    return value >= ' ' && value <= '~' ? std::string(1, value) : "";
}

std::string PlainPart(std::string_view part)
{
    std::string text;
    part.remove_prefix(part.starts_with("_$") ? 1 : 0); // an identifier may not begin with '$'
    while (!part.empty())
    {
        const std::size_t end = part.front() == '$' ? part.find('$', 1) : part.npos;
        const std::string escaped = end == part.npos ? "" : EscapedText(part.substr(1, end - 1));
        if (!escaped.empty())
        {
            text += escaped;
            part.remove_prefix(end + 1);
        }
        else if (part.starts_with(".."))
        {
            text += "::";
            part.remove_prefix(2);
        }
        else
        {
            text += part.front();
            part.remove_prefix(1);
        }
    }
    return text;
}

// "_ZN" and parts, each with its length, and "E": the form that C++ has too. A hash at the end tells them
// apart.
std::string DemangledLegacy(std::string_view name)
{
    std::string text;
    name.remove_prefix(3);
    while (!name.empty() && name.front() >= '1' && name.front() <= '9')
    {
        std::size_t size = 0;
        while (!name.empty() && name.front() >= '0' && name.front() <= '9' && size < name.size())
        {
            size = size * 10 + static_cast<std::size_t>(name.front() - '0');
            name.remove_prefix(1);
        }
        if (size > name.size())
        {
            return "";
        }
        const std::string_view part = name.substr(0, size);
        name.remove_prefix(size);
        if (name == "E")
        {
            return IsHash(part) ? text : "";
        }
        text += (text.empty() ? "" : "::") + PlainPart(part);
    }
    return "";
}

} // namespace

std::string DemangledRust(std::string_view name)
{
    return name.starts_with("_R")    ? DemangledRustV0(name.substr(2))
           : name.starts_with("_ZN") ? DemangledLegacy(name)
                                     : "";
}

} // namespace qelix
