// JSON that is written as a stream: texts and times.
#pragma once

#include "Export/Output.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qelix
{

// In quotes. Bytes that are no UTF-8 are replaced: names come from the program.
std::string JsonText(const std::string& text);

// The texts of a table that only grows, each put in quotes once.
struct JsonNames
{
    std::vector<std::string> m_texts;
};

const std::string& JsonName(JsonNames* pNames, const std::vector<std::string>& table, uint32_t index);

// Nanoseconds as micro- or milliseconds, with every digit: a double would not hold them.
std::string Microseconds(uint64_t nanoseconds);
std::string Milliseconds(uint64_t nanoseconds);

// Puts a comma before everything but the first item of a list.
struct ListWriter
{
    Output* m_pOutput;
    bool m_isFirst = true;
};

void PutItem(ListWriter* pList, std::string_view text);

} // namespace qelix
