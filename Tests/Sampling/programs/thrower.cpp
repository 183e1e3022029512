// A C++ library for a C program: exceptions of every kind, each told in a line.
#include "sampled.h"

#include <exception>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <unwind.h>

namespace
{

struct Tracker
{
    ~Tracker()
    {
        Say("destroyed, %d uncaught", std::uncaught_exceptions());
    }
};

[[gnu::noinline]] void Dive(int depth)
{
    Tracker tracker;
    if (depth == 0)
    {
        throw std::out_of_range("bottom");
    }
    Dive(depth - 1);
}

void ThroughFrames()
{
    try
    {
        Dive(3);
    }
    catch (const std::exception& exception)
    {
        Say("caught %s", exception.what());
    }
}

void Rethrown()
{
    try
    {
        try
        {
            throw std::string("once");
        }
        catch (std::string& text)
        {
            text += " and again";
            throw;
        }
    }
    catch (const std::string& text)
    {
        Say("caught %s", text.c_str());
    }
}

void BetweenThreads()
{
    auto result = std::async(std::launch::async,
                             []
                             {
                                 Dive(1);
                                 return 1;
                             });
    try
    {
        result.get();
    }
    catch (const std::out_of_range& exception)
    {
        Say("caught %s", exception.what());
    }
}

// Cancellation unwinds through C++ frames as well.
void Cancelled()
{
    pthread_t thread;
    auto routine = [](void*) -> void*
    {
        Tracker tracker;
        for (;;)
        {
            usleep(1000);
        }
    };
    Check(pthread_create(&thread, nullptr, routine, nullptr) == 0, "create");
    pthread_cancel(thread);
    void* pResult = nullptr;
    pthread_join(thread, &pResult);
    Say("cancelled %d", pResult == PTHREAD_CANCELED);
}

_Unwind_Reason_Code CountFrame(struct _Unwind_Context*, void* pCount)
{
    ++*static_cast<int*>(pCount);
    return _URC_NO_REASON;
}

void Backtraced()
{
    int frames = 0;
    _Unwind_Backtrace(CountFrame, &frames);
    Say("frames %d", frames > 3);
}

} // namespace

extern "C" void ThrowAndTell(int which)
{
    void (*const pKinds[])() = {ThroughFrames, Rethrown, BetweenThreads, Cancelled, Backtraced};
    pKinds[which]();
}

extern "C" void* UnwinderOfThrower()
{
    return reinterpret_cast<void*>(&_Unwind_RaiseException);
}
