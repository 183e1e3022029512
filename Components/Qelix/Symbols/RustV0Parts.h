// The parts that the younger form of linked Rust names is made of, and the text that they come to.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qelix
{

// Where in a name the reading is. Whatever is wrong in it sets m_isWrong, and reading goes on to an end.
struct RustReader
{
    std::string_view m_name; // behind the "_R" that all of them begin with
    std::size_t m_at = 0;
    std::string m_text;
    unsigned m_depth = 0;
    unsigned m_steps = 0;
    uint64_t m_lifetimes = 0; // bound here
    bool m_isWrong = false;
};

void Fail(RustReader* pReader);
bool Take(RustReader* pReader, char mark); // false: something else stands here
char Next(RustReader* pReader);
void Add(RustReader* pReader, std::string_view text);

// One path or type in another one; false when there are more than any program has. Leave follows in any case.
bool Enter(RustReader* pReader);
void Leave(RustReader* pReader);

uint64_t ReadBase62(RustReader* pReader);
uint64_t ReadOptionalBase62(RustReader* pReader, char mark); // 0 without the mark
std::string ReadPlainIdentifier(RustReader* pReader);
void AddLifetime(RustReader* pReader, uint64_t index);

// Reads on where the reference leads, and comes back.
template <typename Read> void FollowReference(RustReader* pReader, Read read)
{
    const std::size_t mark = pReader->m_at - 1;
    const uint64_t target = ReadBase62(pReader);
    const std::size_t back = pReader->m_at;
    if (target >= mark)
    {
        Fail(pReader);
        return;
    }
    pReader->m_at = target;
    read();
    pReader->m_at = back;
}

// "for<'a, 'b> " and what follows it.
template <typename Read> void InBinder(RustReader* pReader, Read read)
{
    const uint64_t bound = ReadOptionalBase62(pReader, 'G');
    const uint64_t before = pReader->m_lifetimes;
    for (uint64_t i = 0; i < bound && !pReader->m_isWrong; ++i)
    {
        Add(pReader, i == 0 ? "for<" : ", ");
        ++pReader->m_lifetimes;
        AddLifetime(pReader, 1);
    }
    Add(pReader, bound != 0 ? "> " : "");
    read();
    pReader->m_lifetimes = before;
}

// Reads up to the mark 'E', with this between each two.
template <typename Read> std::size_t ReadList(RustReader* pReader, std::string_view between, Read read)
{
    std::size_t count = 0;
    for (; !pReader->m_isWrong && !Take(pReader, 'E'); ++count)
    {
        Add(pReader, count == 0 ? "" : between);
        read();
    }
    return count;
}

} // namespace qelix
