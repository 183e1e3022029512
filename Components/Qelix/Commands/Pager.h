// Text that is longer than the terminal goes through the user's pager.
#pragma once

#include <cstdio>
#include <string>

namespace qelix
{

// A text as it comes. Where standard output is a terminal it is held until it does not fit, and goes through
// QELIX_PAGER, PAGER or less from then on; else it is printed as PrintOut does.
struct PagedText
{
    PagedText();
    PagedText(const PagedText&) = delete;
    PagedText& operator=(const PagedText&) = delete;
    ~PagedText(); // shows what is held, and waits until the reader leaves the pager

    std::size_t m_rows; // of the terminal; 0: there is none, or no pager
    std::size_t m_lines = 0;
    std::string m_held;
    FILE* m_pPager = nullptr;
    void (*m_onPipe)(int) = nullptr; // what was done about signals before
    void (*m_onKey)(int) = nullptr;
};

// False once the reader has left the pager: nobody sees what follows.
bool PutPaged(PagedText* pText, const std::string& text);

void PrintPaged(const std::string& text);

} // namespace qelix
