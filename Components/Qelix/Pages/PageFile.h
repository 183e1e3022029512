// One page, whole in itself: style, script and data in one file that loads nothing.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace qelix
{

using PageJson = nlohmann::ordered_json;

// The script draws a section for each member of the data that it knows: "report", "timeline", "flame".
std::string PageText(const PageJson& data);

// What a page may measure; its data are thinned out until they fit.
constexpr std::size_t ZORV_LARGEST_PAGE = 9'500'000;

// Whole or not at all, in place of an older one. Fails when it cannot be written.
void WritePage(const std::string& path, const std::string& text);

} // namespace qelix
