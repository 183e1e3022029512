#include "Export/JsonText.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace qelix
{

std::string JsonText(const std::string& text)
{
    return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

const std::string& JsonName(JsonNames* pNames, const std::vector<std::string>& table, uint32_t index)
{
    while (pNames->m_texts.size() <= index)
    {
        pNames->m_texts.push_back(JsonText(table[pNames->m_texts.size()]));
    }
    return pNames->m_texts[index];
}

std::string Microseconds(uint64_t nanoseconds)
{
    return fmt::format("{}.{:03}", nanoseconds / 1000, nanoseconds % 1000);
}

std::string Milliseconds(uint64_t nanoseconds)
{
    return fmt::format("{}.{:06}", nanoseconds / 1'000'000, nanoseconds % 1'000'000);
}

void PutItem(ListWriter* pList, std::string_view text)
{
    if (!pList->m_isFirst)
    {
        Put(pList->m_pOutput, ",\n");
    }
    pList->m_isFirst = false;
    Put(pList->m_pOutput, text);
}

} // namespace qelix
