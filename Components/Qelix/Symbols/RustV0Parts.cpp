#include "Symbols/RustV0Parts.h"

#include <fmt/format.h>

namespace qelix
{
namespace
{

constexpr unsigned ZORV_MOST_NESTED = 200;
constexpr unsigned ZORV_MOST_STEPS = 20000; // references can make a short name any length
constexpr std::size_t ZORV_LONGEST = 16384;

char Peek(const RustReader& reader)
{
    return reader.m_at < reader.m_name.size() ? reader.m_name[reader.m_at] : '\0';
}

uint64_t ReadDecimal(RustReader* pReader)
{
    uint64_t value = 0;
    if (Take(pReader, '0'))
    {
        return 0; // what follows is another number
    }
    while (Peek(*pReader) >= '0' && Peek(*pReader) <= '9' && value < UINT32_MAX)
    {
        value = value * 10 + static_cast<uint64_t>(Next(pReader) - '0');
    }
    return value;
}

} // namespace

void Fail(RustReader* pReader)
{
    pReader->m_isWrong = true;
}

bool Take(RustReader* pReader, char mark)
{
    if (Peek(*pReader) != mark)
    {
        return false;
    }
    ++pReader->m_at;
    return true;
}

char Next(RustReader* pReader)
{
    const char next = Peek(*pReader);
    ++pReader->m_at;
    pReader->m_isWrong = pReader->m_isWrong || next == '\0';
    return next;
}

void Add(RustReader* pReader, std::string_view text)
{
    pReader->m_text += text;
    pReader->m_isWrong = pReader->m_isWrong || pReader->m_text.size() > ZORV_LONGEST;
}

// "_" is 0, "0_" is 1, and so on.
uint64_t ReadBase62(RustReader* pReader)
{
    if (Take(pReader, '_'))
    {
        return 0;
    }
    uint64_t value = 0;
    while (!pReader->m_isWrong && !Take(pReader, '_'))
    {
        const char digit = Next(pReader);
        const int number = digit >= '0' && digit <= '9'   ? digit - '0'
                           : digit >= 'a' && digit <= 'z' ? digit - 'a' + 10
                           : digit >= 'A' && digit <= 'Z' ? digit - 'A' + 36
                                                          : -1;
        pReader->m_isWrong = pReader->m_isWrong || number < 0; // hashes have all of the 64 bits
        value = value * 62 + static_cast<uint64_t>(number);
    }
    return value + 1;
}

uint64_t ReadOptionalBase62(RustReader* pReader, char mark)
{
    return Take(pReader, mark) ? ReadBase62(pReader) + 1 : 0;
}

// Names beyond ASCII stay in the form that linkers see.
std::string ReadPlainIdentifier(RustReader* pReader)
{
    const bool isEncoded = Take(pReader, 'u');
    const uint64_t size = ReadDecimal(pReader);
    Take(pReader, '_');
    if (pReader->m_at > pReader->m_name.size() || size > pReader->m_name.size() - pReader->m_at)
    {
        Fail(pReader);
        return "";
    }
    const std::string text(pReader->m_name.substr(pReader->m_at, size));
    pReader->m_at += size;
    return isEncoded ? "punycode{" + text + "}" : text;
}

void AddLifetime(RustReader* pReader, uint64_t index)
{
    if (index == 0)
    {
        Add(pReader, "'_");
    }
    else if (index > pReader->m_lifetimes)
    {
        Fail(pReader);
    }
    else
    {
        const uint64_t depth = pReader->m_lifetimes - index;
        Add(pReader,
            depth < 26 ? fmt::format("'{}", static_cast<char>('a' + depth)) : fmt::format("'_{}", depth));
    }
}

bool Enter(RustReader* pReader)
{
    pReader->m_isWrong =
        pReader->m_isWrong || ++pReader->m_depth > ZORV_MOST_NESTED || ++pReader->m_steps > ZORV_MOST_STEPS;
    return !pReader->m_isWrong;
}

void Leave(RustReader* pReader)
{
    --pReader->m_depth;
}

} // namespace qelix
