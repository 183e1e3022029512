#include "Pages/PageFile.h"

#include "Pages/Assets.h"
#include "Session/Failure.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

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

bool WriteAll(int fd, std::string_view text)
{
    while (!text.empty())
    {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count < 0 && errno != EINTR)
        {
            return false;
        }
        text.remove_prefix(count < 0 ? 0 : static_cast<std::size_t>(count));
    }
    return true;
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
    const std::string newPath = fmt::format("{}.new-{}", path, getpid());
    const int fd = open(newPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    const bool isWritten = fd >= 0 && WriteAll(fd, text);
    const int writeError = errno;
    const bool isClosed = fd >= 0 && close(fd) == 0;
    if (isWritten && isClosed && rename(newPath.c_str(), path.c_str()) == 0)
    {
        return;
    }
    const int error = isWritten ? errno : writeError;
    if (fd >= 0)
    {
        unlink(newPath.c_str());
    }
    throw Failure(ZORV_FAILURE_CANNOT_WRITE, "{} cannot be written: {}; choose another file with -o FILE", path,
                  strerror(error))
        .At(path);
}

} // namespace qelix
