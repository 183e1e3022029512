#include "Pages/PageFile.h"

#include "Export/Output.h"
#include "Pages/Assets.h"
#include "Session/Failure.h"

namespace qelix
{
namespace
{

std::string_view AssetOf(std::string_view name)
{
    for (const Asset& asset : Assets())
    {
        if (asset.m_name == name)
        {
            return asset.m_content;
        }
    }
    throw Failure(ZORV_FAILURE_OTHER, "the command was built without {}", name);
}

std::string Scripts()
{
    std::string scripts = "\"use strict\";\n";
    for (const Asset& asset : Assets())
    {
        if (asset.m_name.ends_with(".js"))
        {
            scripts += asset.m_content;
        }
    }
    return scripts;
}

// JSON that stands inside a script element. Only texts can hold a '<'; escaped, none of them can end the
// element.
std::string EmbeddedJson(const PageJson& data)
{
    const std::string json = data.dump(-1, ' ', false, PageJson::error_handler_t::replace);
    std::string escaped;
    escaped.reserve(json.size());
    for (const char c : json)
    {
        if (c == '<')
        {
            escaped += "\\u003c";
        }
        else
        {
            escaped += c;
        }
    }
    return escaped;
}

void AppendUpTo(std::string_view mark, std::string_view* pTemplate, std::string* pPage)
{
    const std::size_t at = pTemplate->find(mark);
    *pPage += pTemplate->substr(0, at);
    pTemplate->remove_prefix(at + mark.size());
}

} // namespace

std::string PageText(const PageJson& data)
{
    std::string_view rest = AssetOf("page.html");
    std::string page;
    AppendUpTo("@STYLE@", &rest, &page);
    page += AssetOf("page.css");
    AppendUpTo("@DATA@", &rest, &page);
    page += EmbeddedJson(data);
    AppendUpTo("@SCRIPT@", &rest, &page);
    page += Scripts();
    page += rest;
    return page;
}

void WritePage(const std::string& path, const std::string& text)
{
    const auto pOutput = OpenOutput(path, ZORV_COMPRESS_NONE);
    Put(pOutput.get(), text);
    CloseOutput(pOutput.get());
}

} // namespace qelix
