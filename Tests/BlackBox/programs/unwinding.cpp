// Leaves threads through pthread_exit and catches exceptions around interposed calls, with objects to destroy.
#include "blackbox.h"
#include <stdexcept>

struct Guard
{
    const char* m_pName;
    ~Guard()
    {
        Say("destructor %s", m_pName);
    }
};

static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;

static void LockAndExit()
{
    Guard guard{"inner"};
    pthread_mutex_lock(&g_mutex);
    pthread_mutex_unlock(&g_mutex);
    pthread_exit(reinterpret_cast<void*>(6));
}

static void* Exit(void*)
{
    Guard guard{"outer"};
    LockAndExit();
    return nullptr;
}

static void* Throw(void*)
{
    try
    {
        Guard guard{"thrown"};
        pthread_mutex_lock(&g_mutex);
        throw std::runtime_error("thrown inside a lock");
    }
    catch (const std::exception& error)
    {
        pthread_mutex_unlock(&g_mutex);
        Say("caught %s", error.what());
    }
    return nullptr;
}

static void RunThread(void* (*pRoutine)(void*))
{
    pthread_t thread;
    void* pResult = nullptr;
    Check(pthread_create(&thread, nullptr, pRoutine, nullptr) == 0, "create");
    Check(pthread_join(thread, &pResult) == 0, "join");
    Say("result %lu", reinterpret_cast<unsigned long>(pResult));
}

int main()
{
    RunThread(Exit);
    RunThread(Throw);
    return 0;
}
