// A module that is loaded and unloaded: it has constructors, a destructor, and catches an exception of its own.
#include <vector>

namespace
{

struct Content
{
    std::vector<int> m_values{1, 2, 3};
} g_content;

} // namespace

extern "C" int CountForModule()
{
    try
    {
        throw static_cast<int>(g_content.m_values.size());
    }
    catch (int count)
    {
        return count;
    }
}
