#include "Commands/Pager.h"

#include "Commands/Commands.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qelix
{
namespace
{

// Rows of the terminal; 0: there is none.
std::size_t RowsOfTerminal()
{
    winsize size;
    return isatty(STDOUT_FILENO) == 1 && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_row : 0;
}

std::string PagerOfUser()
{
    for (const char* pVariable : {"QELIX_PAGER", "PAGER"})
    {
        if (const char* pPager = getenv(pVariable))
        {
            return std::string(pPager) == "cat" ? "" : pPager;
        }
    }
    const char* pTerminal = getenv("TERM");
    return pTerminal != nullptr && std::string(pTerminal) == "dumb" ? "" : "less";
}

// False when there is no such pager: then nothing has been shown.
bool ShowIn(const std::string& pager, const std::string& text)
{
    constexpr int shellFoundNothing = 127;
    setenv("LESS", "FRX", 0); // colours, and nothing stays behind that would have fitted
    fflush(stdout);
    FILE* pPipe = popen(
        ("command -v " + pager.substr(0, pager.find(' ')) + " >/dev/null 2>&1 || exit 127\n" + pager).c_str(),
        "w");
    if (pPipe == nullptr)
    {
        return false;
    }
    // Who leaves the pager early has seen enough, and keys that end programs are the pager's.
    const auto onPipe = signal(SIGPIPE, SIG_IGN);
    const auto onKey = signal(SIGINT, SIG_IGN);
    fwrite(text.data(), 1, text.size(), pPipe);
    const int status = pclose(pPipe);
    signal(SIGPIPE, onPipe);
    signal(SIGINT, onKey);
    return !(WIFEXITED(status) && WEXITSTATUS(status) == shellFoundNothing);
}

} // namespace

void PrintPaged(const std::string& text)
{
    const std::size_t rows = RowsOfTerminal();
    const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
    const std::string pager = rows != 0 && lines >= rows ? PagerOfUser() : "";
    if (pager.empty() || !ShowIn(pager, text))
    {
        PrintOut(text);
    }
}

} // namespace qelix
