// BenchThrowCost COUNT REPETITIONS: the CPU time of one exception through five frames. One line a repetition:
// ns.
#include "BenchTime.h"

#include <stdexcept>

namespace
{

[[gnu::noinline, gnu::noclone]] int ThrowAt(int depth)
{
    if (depth == 0)
        throw std::runtime_error("bench");
    volatile int result = ThrowAt(depth - 1);
    return result + 1;
}

int CatchMany(long count)
{
    int caught = 0;
    for (long i = 0; i < count; i++)
        try
        {
            ThrowAt(5);
        }
        catch (const std::runtime_error&)
        {
            caught++;
        }
    return caught;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        return 2;
    long count = std::atol(argv[1]);
    CatchMany(count / 10);
    for (long repetition = std::atol(argv[2]); repetition > 0; repetition--)
    {
        uint64_t start = BenchTime(CLOCK_THREAD_CPUTIME_ID);
        if (CatchMany(count) != count)
            return 1;
        std::printf("%.2f\n", static_cast<double>(BenchTime(CLOCK_THREAD_CPUTIME_ID) - start) /
                                  static_cast<double>(count));
    }
}
