#include "Symbols/FunctionNames.h"

#include "Symbols/RustNames.h"

#include <algorithm>
#include <cstdlib>
#include <cxxabi.h>
#include <iterator>
#include <memory>

namespace qelix
{
namespace
{

struct Freer
{
    void operator()(void* pMemory) const
    {
        free(pMemory);
    }
};

constexpr std::string_view g_cloneMarks[] = {"cold",       "constprop", "isra", "llvm",
                                             "localalias", "lto_priv",  "part"};

// "", or any number of ".part" and ".7" from here to the end: what compilers add.
bool IsCloneMark(std::string_view text)
{
    while (text.starts_with('.'))
    {
        text.remove_prefix(1);
        const std::string_view word = text.substr(0, text.find('.'));
        const bool isNumber = !word.empty() && word.find_first_not_of("0123456789") == word.npos;
        if (!isNumber &&
            std::find(std::begin(g_cloneMarks), std::end(g_cloneMarks), word) == std::end(g_cloneMarks))
        {
            return false;
        }
        text.remove_prefix(word.size());
    }
    return text.empty();
}

std::string_view WithoutCloneMark(std::string_view name)
{
    for (std::size_t at = name.find('.', 1); at != name.npos; at = name.find('.', at + 1))
    {
        if (IsCloneMark(name.substr(at)))
        {
            return name.substr(0, at);
        }
    }
    return name;
}

} // namespace

std::string Demangled(std::string_view name)
{
    std::string plain(WithoutCloneMark(name));
    if (std::string rust = DemangledRust(plain); !rust.empty())
    {
        return rust;
    }
    if (!plain.starts_with("_Z"))
    {
        return plain;
    }
    int status = 0;
    const std::unique_ptr<char, Freer> pText(abi::__cxa_demangle(plain.c_str(), nullptr, nullptr, &status));
    return status == 0 && pText != nullptr ? pText.get() : plain;
}

} // namespace qelix
