#include "Commands/Pager.h"

#include "Commands/Commands.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

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

bool IsThere(const std::string& pager)
{
    const std::string look = "command -v " + pager.substr(0, pager.find(' ')) + " >/dev/null 2>&1";
    return system(look.c_str()) == 0;
}

void OpenPager(PagedText* pText)
{
    const std::string pager = PagerOfUser();
    if (pager.empty() || !IsThere(pager))
    {
        return;
    }
    setenv("LESS", "FRX", 0); // colours, and nothing stays behind that would have fitted
    fflush(stdout);
    pText->m_pPager = popen(pager.c_str(), "w");
    if (pText->m_pPager != nullptr)
    {
        // Who leaves the pager early has seen enough, and keys that end programs are the pager's.
        pText->m_onPipe = signal(SIGPIPE, SIG_IGN);
        pText->m_onKey = signal(SIGINT, SIG_IGN);
    }
}

} // namespace

PagedText::PagedText() : m_rows(RowsOfTerminal()) {}

PagedText::~PagedText()
{
    if (m_pPager == nullptr)
    {
        PrintOut(m_held);
        return;
    }
    pclose(m_pPager);
    signal(SIGPIPE, m_onPipe);
    signal(SIGINT, m_onKey);
}

bool PutPaged(PagedText* pText, const std::string& text)
{
    if (pText->m_pPager != nullptr)
    {
        return fwrite(text.data(), 1, text.size(), pText->m_pPager) == text.size();
    }
    pText->m_held += text;
    pText->m_lines += static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
    if (pText->m_rows != 0 && pText->m_lines < pText->m_rows)
    {
        return true;
    }
    const std::string held = std::exchange(pText->m_held, {});
    if (pText->m_rows != 0)
    {
        OpenPager(pText);
    }
    if (pText->m_pPager != nullptr)
    {
        return PutPaged(pText, held);
    }
    pText->m_rows = 0;
    PrintOut(held);
    return true;
}

void PrintPaged(const std::string& text)
{
    PagedText paged;
    PutPaged(&paged, text);
}

} // namespace qelix
