// How long a full buffer waits for the writer.
//
//   BenchBufferTaken TRACE_DIRECTORY BUSY_THREADS BURSTS
//
// Each burst makes more records than a buffer holds and then watches the trace file until it has grown; the
// pauses between bursts differ, so that the writer is found at every point of its rest. BUSY_THREADS threads
// compute all the while. Prints for each burst two times in nanoseconds since its start, "NOT_YET TAKEN": when
// the file was last seen not to have grown, and when it was seen to have. They lie far apart when this thread
// itself had no CPU; such a burst says nothing.
#include "BenchTime.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

enum
{
    BURST_LOCKS = 600, // 511 records of 64 bytes fill a buffer
    GIVE_UP_NS = 1000000000,
    SHORTEST_PAUSE_NS = 2000000,
    PAUSE_STEP_NS = 370000, // no multiple of any rest that a writer may take
    PAUSES = 41,
};

static volatile int g_isEnding;

static void* Compute(void* pUnused)
{
    for (volatile unsigned long i = 0; !g_isEnding; i++)
        ;
    return pUnused;
}

static void MakeRecords(void)
{
    static pthread_mutex_t s_mutex = PTHREAD_MUTEX_INITIALIZER;
    for (int i = 0; i < BURST_LOCKS; i++)
    {
        pthread_mutex_lock(&s_mutex);
        pthread_mutex_unlock(&s_mutex);
    }
}

static off_t FileSize(const char* pPath)
{
    struct stat status;
    return stat(pPath, &status) == 0 ? status.st_size : -1;
}

static int MeasureBurst(const char* pPath)
{
    const off_t before = FileSize(pPath);
    const uint64_t start = BenchTime(CLOCK_MONOTONIC);
    MakeRecords();
    uint64_t lastNotTaken = start;
    uint64_t now = start;
    while (FileSize(pPath) <= before && now - start < GIVE_UP_NS)
    {
        lastNotTaken = now;
        now = BenchTime(CLOCK_MONOTONIC);
    }
    now = BenchTime(CLOCK_MONOTONIC);
    if (before < 0 || now - start >= GIVE_UP_NS)
        return 1;
    printf("%llu %llu\n", (unsigned long long)(lastNotTaken - start), (unsigned long long)(now - start));
    return 0;
}

int main(int argc, char** argv)
{
    const int busy = argc == 4 ? atoi(argv[2]) : -1;
    const int bursts = argc == 4 ? atoi(argv[3]) : 0;
    char path[4096], host[256] = "";
    if (busy < 0 || bursts <= 0)
    {
        fprintf(stderr, "usage: %s TRACE_DIRECTORY BUSY_THREADS BURSTS\n", argv[0]);
        return 2;
    }
    gethostname(host, sizeof host - 1);
    snprintf(path, sizeof path, "%s/trace_%s_%d.umt", argv[1], host, (int)getpid());
    for (int i = 0; i < busy; i++)
    {
        pthread_t thread;
        if (pthread_create(&thread, NULL, Compute, NULL) != 0)
            return 1;
    }
    int failed = 0;
    for (int i = 0; i < bursts && !failed; i++)
    {
        nanosleep(&(struct timespec){0, SHORTEST_PAUSE_NS + i % PAUSES * PAUSE_STEP_NS}, NULL);
        failed = MeasureBurst(path);
    }
    if (failed)
        fprintf(stderr, "%s did not grow\n", path);
    g_isEnding = 1;
    return failed;
}
