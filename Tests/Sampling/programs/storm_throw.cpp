// C++ exceptions through several frames, with destructors on the way.
#include "storm.h"

#include <stdexcept>

namespace
{

struct Counter
{
    explicit Counter(int* pCount) : m_pCount(pCount) {}
    ~Counter()
    {
        ++*m_pCount;
    }
    int* m_pCount;
};

[[gnu::noinline]] int ThrowAt(int depth, int* pDestroyed)
{
    Counter counter(pDestroyed);
    if (depth == 0)
    {
        throw std::runtime_error("at the bottom");
    }
    return ThrowAt(depth - 1, pDestroyed) + 1;
}

} // namespace

extern "C" void* ThrowAndCatch(void* pUnused)
{
    while (!g_isOver)
    {
        MakeProgress();
        int destroyed = 0;
        try
        {
            ThrowAt(10, &destroyed);
        }
        catch (const std::runtime_error&)
        {
            Check(destroyed == 11, "destructors");
        }
    }
    return pUnused;
}
