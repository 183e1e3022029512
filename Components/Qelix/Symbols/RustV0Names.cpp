// The younger form of linked Rust names: a grammar of one-letter marks, in which what was said before is
// referred to by where it stands.
#include "Symbols/RustNames.h"
#include "Symbols/RustV0Parts.h"

#include <fmt/format.h>

namespace qelix
{
namespace
{

void ReadPath(RustReader* pReader, bool isInValue);
void ReadType(RustReader* pReader);
void ReadConst(RustReader* pReader);

void ReadGenericArgument(RustReader* pReader)
{
    if (Take(pReader, 'L'))
    {
        AddLifetime(pReader, ReadBase62(pReader));
    }
    else if (Take(pReader, 'K'))
    {
        ReadConst(pReader);
    }
    else
    {
        ReadType(pReader);
    }
}

// What an implementation is written in says nothing to its reader.
void SkipImplementationPath(RustReader* pReader)
{
    ReadOptionalBase62(pReader, 's');
    const std::string before = pReader->m_text;
    ReadPath(pReader, false);
    pReader->m_text = before;
}

void AddNested(RustReader* pReader, char kind, uint64_t index, const std::string& name)
{
    if (kind >= 'a' && kind <= 'z')
    {
        Add(pReader, name.empty() ? "" : "::" + name);
        return;
    }
    const std::string what = kind == 'C' ? "closure" : kind == 'S' ? "shim" : std::string(1, kind);
    Add(pReader, fmt::format("::{{{}{}{}#{}}}", what, name.empty() ? "" : ":", name, index));
}

void ReadNested(RustReader* pReader, bool isInValue)
{
    const char kind = Next(pReader);
    ReadPath(pReader, isInValue);
    const uint64_t index = ReadOptionalBase62(pReader, 's');
    AddNested(pReader, kind, index, ReadPlainIdentifier(pReader));
}

void ReadImplementation(RustReader* pReader, char mark)
{
    if (mark != 'Y')
    {
        SkipImplementationPath(pReader);
    }
    Add(pReader, "<");
    ReadType(pReader);
    if (mark != 'M')
    {
        Add(pReader, " as ");
        ReadPath(pReader, false);
    }
    Add(pReader, ">");
}

// The path up to the end of its arguments; the closing '>' may be left to what follows.
void ReadPathOpen(RustReader* pReader, bool isInValue)
{
    ReadPath(pReader, isInValue);
    Add(pReader, isInValue ? "::<" : "<");
    ReadList(pReader, ", ", [=] { ReadGenericArgument(pReader); });
}

void ReadPath(RustReader* pReader, bool isInValue)
{
    const char mark = Enter(pReader) ? Next(pReader) : '\0';
    switch (mark)
    {
    case 'C':
        ReadOptionalBase62(pReader, 's');
        Add(pReader, ReadPlainIdentifier(pReader));
        break;
    case 'N':
        ReadNested(pReader, isInValue);
        break;
    case 'M':
    case 'X':
    case 'Y':
        ReadImplementation(pReader, mark);
        break;
    case 'I':
        ReadPathOpen(pReader, isInValue);
        Add(pReader, ">");
        break;
    case 'B':
        FollowReference(pReader, [=] { ReadPath(pReader, isInValue); });
        break;
    default:
        Fail(pReader);
    }
    Leave(pReader);
}

const char* BasicType(char mark)
{
    constexpr std::string_view marks = "abcdefhijlmnostuvxyzp";
    constexpr const char* names[] = {"i8",    "bool",  "char", "f64", "str",  "f32",  "u8",
                                     "isize", "usize", "i32",  "u32", "i128", "u128", "i16",
                                     "u16",   "()",    "...",  "i64", "u64",  "!",    "_"};
    const std::size_t at = marks.find(mark);
    return at == marks.npos ? nullptr : names[at];
}

void ReadReference(RustReader* pReader, const char* pAfterLifetime)
{
    Add(pReader, "&");
    if (Take(pReader, 'L'))
    {
        if (const uint64_t index = ReadBase62(pReader); index != 0)
        {
            AddLifetime(pReader, index);
            Add(pReader, " ");
        }
    }
    Add(pReader, pAfterLifetime);
    ReadType(pReader);
}

void ReadFunction(RustReader* pReader)
{
    Add(pReader, Take(pReader, 'U') ? "unsafe " : "");
    if (Take(pReader, 'K'))
    {
        const std::string abi = Take(pReader, 'C') ? "C" : ReadPlainIdentifier(pReader);
        Add(pReader, "extern \"" + abi + "\" ");
    }
    Add(pReader, "fn(");
    ReadList(pReader, ", ", [=] { ReadType(pReader); });
    Add(pReader, ")");
    if (!Take(pReader, 'u'))
    {
        Add(pReader, " -> ");
        ReadType(pReader);
    }
}

// One of the traits of a "dyn", whose associated types stand among its arguments.
void ReadDynTrait(RustReader* pReader)
{
    const bool hasArguments = Take(pReader, 'I');
    if (hasArguments)
    {
        ReadPathOpen(pReader, false);
    }
    else
    {
        ReadPath(pReader, false);
    }
    bool isOpen = hasArguments;
    while (!pReader->m_isWrong && Take(pReader, 'p'))
    {
        Add(pReader, isOpen ? ", " : "<");
        isOpen = true;
        Add(pReader, ReadPlainIdentifier(pReader) + " = ");
        ReadType(pReader);
    }
    Add(pReader, isOpen ? ">" : "");
}

void ReadDyn(RustReader* pReader)
{
    Add(pReader, "dyn ");
    InBinder(pReader, [=] { ReadList(pReader, " + ", [=] { ReadDynTrait(pReader); }); });
    if (!Take(pReader, 'L'))
    {
        Fail(pReader);
    }
    else if (const uint64_t index = ReadBase62(pReader); index != 0)
    {
        Add(pReader, " + ");
        AddLifetime(pReader, index);
    }
}

void ReadSequence(RustReader* pReader, char mark)
{
    Add(pReader, mark == 'T' ? "(" : "[");
    if (mark == 'T')
    {
        const std::size_t count = ReadList(pReader, ", ", [=] { ReadType(pReader); });
        Add(pReader, count == 1 ? ",)" : ")");
        return;
    }
    ReadType(pReader);
    if (mark == 'A')
    {
        Add(pReader, "; ");
        ReadConst(pReader);
    }
    Add(pReader, "]");
}

void ReadTypeAt(RustReader* pReader, char mark)
{
    switch (mark)
    {
    case 'A':
    case 'S':
    case 'T':
        return ReadSequence(pReader, mark);
    case 'R':
        return ReadReference(pReader, "");
    case 'Q':
        return ReadReference(pReader, "mut ");
    case 'P':
        Add(pReader, "*const ");
        return ReadType(pReader);
    case 'O':
        Add(pReader, "*mut ");
        return ReadType(pReader);
    case 'F':
        return InBinder(pReader, [=] { ReadFunction(pReader); });
    case 'D':
        return ReadDyn(pReader);
    case 'B':
        return FollowReference(pReader, [=] { ReadType(pReader); });
    default:
        pReader->m_at -= mark != '\0' ? 1 : 0;
        ReadPath(pReader, false);
    }
}

void ReadType(RustReader* pReader)
{
    const char mark = Enter(pReader) ? Next(pReader) : '\0';
    if (const char* pBasic = BasicType(mark))
    {
        Add(pReader, pBasic);
    }
    else
    {
        ReadTypeAt(pReader, mark);
    }
    Leave(pReader);
}

void AddConst(RustReader* pReader, char type, bool isNegative, const std::string& digits)
{
    const uint64_t value = digits.size() <= 16 && !digits.empty() ? std::stoull(digits, nullptr, 16) : 0;
    if (type == 'b')
    {
        Add(pReader, value != 0 ? "true" : "false");
    }
    else if (type == 'c')
    {
        Add(pReader, value >= ' ' && value <= '~' ? fmt::format("'{}'", static_cast<char>(value))
                                                  : fmt::format("'\\u{{{:x}}}'", value));
    }
    else
    {
        Add(pReader,
            (isNegative ? "-" : "") + (digits.size() <= 16 ? fmt::format("{}", value) : "0x" + digits));
    }
}

void ReadConst(RustReader* pReader)
{
    if (Take(pReader, 'B'))
    {
        FollowReference(pReader, [=] { ReadConst(pReader); });
        return;
    }
    const char type = Next(pReader);
    if (type == 'p')
    {
        Add(pReader, "_");
        return;
    }
    constexpr std::string_view known = "abchijlmnostxy";
    if (known.find(type) == known.npos)
    {
        Fail(pReader);
        return;
    }
    const bool isNegative = Take(pReader, 'n');
    std::string digits;
    while (!pReader->m_isWrong && !Take(pReader, '_'))
    {
        const char digit = Next(pReader);
        digits += digit;
        pReader->m_isWrong =
            pReader->m_isWrong || std::string_view("0123456789abcdef").find(digit) == std::string_view::npos;
    }
    if (!pReader->m_isWrong)
    {
        AddConst(pReader, type, isNegative, digits);
    }
}

} // namespace

// name: behind the "_R" that all of them begin with. Empty when it is none.
std::string DemangledRustV0(std::string_view name)
{
    RustReader reader;
    reader.m_name = name;
    ReadPath(&reader, true);
    if (!reader.m_isWrong && reader.m_at < name.size())
    {
        const std::string text = reader.m_text;
        ReadPath(&reader, false); // whose copy of a generic function it is
        reader.m_text = text;
    }
    return reader.m_isWrong || reader.m_at != name.size() ? "" : reader.m_text;
}

} // namespace qelix
