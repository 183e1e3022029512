// A field of a CSV line (RFC 4180).
#pragma once

#include <string>

namespace qelix
{

inline std::string CsvText(const std::string& text)
{
    if (text.find_first_of(",\"\r\n") == std::string::npos)
    {
        return text;
    }
    std::string quoted = "\"";
    for (const char c : text)
    {
        quoted += c == '"' ? "\"\"" : std::string(1, c);
    }
    return quoted + '"';
}

} // namespace qelix
