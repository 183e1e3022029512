// The sources of the pages, as they were when the command was built.
#pragma once

#include <span>
#include <string_view>

namespace qelix
{

struct Asset
{
    std::string_view m_name; // of the file in the folder assets
    std::string_view m_content;
};

// In the order in which scripts need each other.
std::span<const Asset> Assets();

} // namespace qelix
