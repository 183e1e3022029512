// descriptors MODE: a program that does with descriptor numbers what it likes. Every mode works between its
// steps, enough for the agent to write its file several times, and leaves files that hold only what the program
// wrote.
#include "process.h"
#include <dirent.h>
#include <linux/close_range.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#define CALLS 3000
#define ROUNDS 6

static void WriteText(int fd, const char* pText)
{
    Check(write(fd, pText, strlen(pText)) == (ssize_t)strlen(pText), "write");
}

// A file of the program's, at a number that it wants.
static void Place(int number)
{
    char name[32];
    char text[64];
    snprintf(name, sizeof(name), "mine-%d", number);
    int fd = open(name, O_RDWR | O_CREAT | O_TRUNC, 0600);
    Check(fd >= 0, "open");
    if (fd != number)
    {
        Check(dup2(fd, number) == number && close(fd) == 0, "dup2");
    }
    snprintf(text, sizeof(text), "begin %d\n", number);
    WriteText(number, text);
}

static void Finish(int number)
{
    char text[64];
    snprintf(text, sizeof(text), "end %d\n", number);
    WriteText(number, text);
}

static void Rounds(void (*pStep)(int))
{
    for (int i = 0; i < ROUNDS; ++i)
    {
        Work(CALLS);
        pStep(i);
    }
    Work(CALLS);
}

// ---- which numbers the program gets ----------------------------------------------------------------------

static int Numbers(void)
{
    int ends[2];
    int sockets[2];
    Say("open %d", open("/dev/null", O_RDONLY));
    Say("openat %d", openat(AT_FDCWD, ".", O_RDONLY));
    Say("dup %d", dup(0));
    Check(pipe(ends) == 0 && socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) == 0, "pairs");
    Say("pipe %d %d sockets %d %d", ends[0], ends[1], sockets[0], sockets[1]);
    Say("epoll %d", epoll_create1(0));
    FILE* pFile = fopen("/etc/passwd", "r");
    DIR* pDirectory = opendir(".");
    Say("streams %d %d", fileno(pFile), dirfd(pDirectory));
    Say("from 100 %d", fcntl(0, F_DUPFD, 100));
    Work(CALLS);
    Say("open %d", open("/dev/null", O_RDONLY));
    return 100;
}

static void StepNumbers(int round)
{
    int fd = open("/dev/null", O_RDONLY);
    Say("round %d open %d", round, fd);
    if (round & 1)
    {
        close(fd);
    }
}

static int NumbersWhileWriting(void)
{
    Rounds(StepNumbers);
    return 100;
}

// ---- closing everything ----------------------------------------------------------------------------------

static void CloseEach(int round)
{
    int kept = 0;
    for (int fd = 3; fd < 2048; ++fd)
    {
        kept += close(fd) == 0;
    }
    Say("round %d own %d", round, kept);
    Place(3);
    Place(4);
}

static void CloseRange(int round)
{
    Say("round %d closed %d", round, close_range(3, ~0U, 0));
    Place(3);
}

static void CloseFrom(int round)
{
    closefrom(3);
    Place(3);
    Say("round %d", round);
}

static void CloseOnExec(int round)
{
    Say("round %d marked %d", round, close_range(3, ~0U, CLOSE_RANGE_CLOEXEC));
}

static int CloseAllEach(void)
{
    Rounds(CloseEach);
    Finish(3);
    Finish(4);
    return 100;
}

static int CloseAllRange(void)
{
    Rounds(CloseRange);
    Finish(3);
    return 100;
}

static int CloseAllFrom(void)
{
    Rounds(CloseFrom);
    Finish(3);
    return 100;
}

static int MarkAll(void)
{
    Rounds(CloseOnExec);
    return 100;
}

// ---- taking numbers --------------------------------------------------------------------------------------

static void TakeHigh(int round)
{
    for (int number = 505 + round; number <= 530; ++number)
    {
        Place(number);
    }
}

static int TakeHighNumbers(void)
{
    Rounds(TakeHigh);
    for (int number = 510; number <= 530; ++number)
    {
        Finish(number);
    }
    return 100;
}

static void TakeFixed(int round)
{
    static const int numbers[] = {3, 9, 10, 63, 100, 255, 256, 511, 512, 513, 514, 515, 600, 1000};
    for (size_t i = 0; i < sizeof(numbers) / sizeof(numbers[0]); ++i)
    {
        Place(numbers[i]);
        if (round & 1)
        {
            Finish(numbers[i]);
        }
    }
}

static int TakeFixedNumbers(void)
{
    Rounds(TakeFixed);
    return 100;
}

// The agent's numbers, as the program sees them; natively none.
static int NumbersOfOthers(int* pNumbers)
{
    int count = 0;
    DIR* pDirectory = opendir("/proc/self/fd");
    for (struct dirent* pEntry = readdir(pDirectory); pEntry; pEntry = readdir(pDirectory))
    {
        int number = atoi(pEntry->d_name);
        if (number > 200)
        {
            pNumbers[count++] = number;
        }
    }
    closedir(pDirectory);
    return count;
}

// Every descriptor that is not the program's becomes the program's.
static void TakeOurs(int round)
{
    int numbers[64];
    int count = NumbersOfOthers(numbers);
    for (int i = 0; i < count; ++i)
    {
        Place(numbers[i]);
    }
    (void)round;
}

static int TakeTheAgents(void)
{
    Rounds(TakeOurs);
    return 100;
}

static void Answer(const char* pCall, int result)
{
    Say("%s %d, errno %d", pCall, result, errno);
    errno = 0;
}

// What the calls answer for a number that the program has not opened.
static void AskOdd(int round)
{
    int numbers[64];
    int number = NumbersOfOthers(numbers) > 0 ? numbers[0] : 900;
    errno = 0;
    Answer("dup2", dup2(number, number));
    Answer("dup2 from it", dup2(number, 40));
    Answer("dup3", dup3(number, number, 0));
    Answer("dup", dup(number));
    Answer("fcntl", fcntl(number, F_GETFD));
    Answer("F_DUPFD", fcntl(number, F_DUPFD, 10));
    Answer("dup3 from it", dup3(number, 40, O_CLOEXEC));
    Answer("unknown flag of dup3", dup3(0, number, 1 << 30));
    Answer("upside down", close_range((unsigned)number + 1, (unsigned)number, 0));
    Answer("unknown flag", close_range((unsigned)number, (unsigned)number, 1 << 30));
    Answer("close_range", close_range((unsigned)number, (unsigned)number, 0));
    Answer("close", close(number));
    (void)round;
}

static int AskOddOnes(void)
{
    Rounds(AskOdd);
    return 100;
}

// A number that the agent is writing to, or closing, in this moment; what stands ahead of the agent shows it.
static int TakeInTheMoment(void)
{
    const int* pNumber = (const int*)dlsym(RTLD_DEFAULT, "g_numberInHand");
    const int* pIsPast = (const int*)dlsym(RTLD_DEFAULT, "g_isMomentPast");
    char line[16];
    Check(pNumber && pIsPast, "an object ahead of the agent");
    Say("ready");
    Check(Hear(line, sizeof(line)), "the test's word");
    Work(atoi(line));
    while (__atomic_load_n(pNumber, __ATOMIC_SEQ_CST) == 0)
    {
    }
    Place(*pNumber);
    while (__atomic_load_n(pIsPast, __ATOMIC_SEQ_CST) == 0)
    {
    }
    Finish(*pNumber);
    Say("number %d", *pNumber);
    return 100;
}

// The collection is stopped while the program holds the numbers; they stay open.
static int HoldWhileStopped(void)
{
    char line[16];
    TakeHigh(5);
    Say("held");
    Check(Hear(line, sizeof(line)), "the test's word");
    for (int number = 510; number <= 530; ++number)
    {
        Check(fcntl(number, F_GETFD) >= 0, "a descriptor of the program");
        Finish(number);
    }
    return 100;
}

// What an exit handler finds.
static void FinishHigh(void)
{
    for (int number = 510; number <= 530; ++number)
    {
        Finish(number);
    }
}

static int HoldInExitHandler(void)
{
    atexit(FinishHigh);
    TakeHigh(5);
    Work(CALLS);
    return 100;
}

// ---- without standard streams, and with few numbers ------------------------------------------------------

// Whatever is closed is opened by the program, in the order of the numbers.
static int WithoutStreams(void)
{
    char line[256] = "";
    int first = open("first", O_RDWR | O_CREAT | O_TRUNC, 0600);
    int second = open("second", O_RDWR | O_CREAT | O_TRUNC, 0600);
    int third = open("third", O_RDWR | O_CREAT | O_TRUNC, 0600);
    int fourth = open("fourth", O_RDWR | O_CREAT | O_TRUNC, 0600);
    Work(CALLS);
    snprintf(line, sizeof(line), "%d %d %d %d\n", first, second, third, fourth);
    WriteText(fourth, line);
    Work(CALLS * ROUNDS);
    return 100;
}

static int FewNumbers(void)
{
    for (int i = 0; i < 4; ++i)
    {
        Say("open %d", open("/dev/null", O_RDONLY));
    }
    Work(CALLS * ROUNDS);
    for (int fd = 3; fd < 7; ++fd)
    {
        Say("close %d", close(fd));
    }
    Say("open %d", open("/dev/null", O_RDONLY));
    pid_t child = fork();
    if (child == 0)
    {
        Work(CALLS);
        _exit(dup(0) == 4 ? 17 : 18);
    }
    Say("child %d", StatusOf(child));
    return 100;
}

static const struct Mode g_modes[] = {
    {"numbers", Numbers},
    {"numbers_while_writing", NumbersWhileWriting},
    {"close_each", CloseAllEach},
    {"close_range", CloseAllRange},
    {"close_from", CloseAllFrom},
    {"mark_all", MarkAll},
    {"take_high", TakeHighNumbers},
    {"take_fixed", TakeFixedNumbers},
    {"take_ours", TakeTheAgents},
    {"ask_odd", AskOddOnes},
    {"take_in_the_moment", TakeInTheMoment},
    {"hold", HoldWhileStopped},
    {"hold_at_exit", HoldInExitHandler},
    {"without_streams", WithoutStreams},
    {"few", FewNumbers},
};

int main(int count, char** ppArguments)
{
    Check(count == 2, "usage");
    return RUN_MODE(g_modes, ppArguments[1]);
}
