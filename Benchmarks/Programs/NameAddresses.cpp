// NameAddresses FILE COUNT [list|names]: looks up that many addresses, spread evenly over the code of FILE, and
// says what that took: nanoseconds, addresses with a name, addresses with a line, KiB of peak memory.
// `list` prints the addresses instead, for a peer; `names` what is found at each.
#include "Symbols/Symbolizer.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/resource.h>

using namespace qelix;

namespace
{

constexpr uint64_t BASE = uint64_t{1} << 40; // where the file is mapped, as far as the look-up knows

ModuleMap MapOf(const std::string& path, const LoadedSegment& code)
{
    ModuleMap map;
    AddMapping(&map, {BASE, BASE + code.m_size, 1, path});
    SettleMap(&map);
    return map;
}

void PrintNames(const Symbolizer& symbolizer, const CodePlace& place)
{
    for (std::size_t i = 0; i < place.m_lines.size(); ++i)
    {
        const CodeLine& line = symbolizer.m_lines[place.m_lines[i]];
        printf("%s%s %s:%u", i == 0 ? "" : " < ", symbolizer.m_functions[line.m_function].m_name.c_str(),
               symbolizer.m_sources[line.m_source].c_str(), line.m_line);
    }
    putchar('\n');
}

void Measure(const std::string& path, const LoadedSegment& code, uint64_t count, bool withNames)
{
    const auto start = std::chrono::steady_clock::now();
    Symbolizer symbolizer;
    ProcessSymbols process = SymbolsOf(&symbolizer, MapOf(path, code));
    uint64_t named = 0;
    uint64_t withLine = 0;
    for (uint64_t i = 0; i < count; ++i)
    {
        const CodePlace& place = PlaceOf(&process, BASE + code.m_size * i / count, 1);
        const CodeLine& line = symbolizer.m_lines[place.m_lines.front()];
        named += symbolizer.m_functions[line.m_function].m_name.find("+0x") == std::string::npos ? 1 : 0;
        withLine += line.m_line != 0 ? 1 : 0;
        if (withNames)
        {
            PrintNames(symbolizer, place);
        }
    }
    const std::chrono::nanoseconds taken = std::chrono::steady_clock::now() - start;
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    if (!withNames)
    {
        printf("%lld %lu %lu %ld\n", static_cast<long long>(taken.count()), named, withLine, usage.ru_maxrss);
    }
}

} // namespace

int main(int argc, char** argv)
{
    const std::string what = argc > 3 ? argv[3] : "";
    const uint64_t count = argc > 2 ? strtoull(argv[2], nullptr, 10) : 0;
    const auto pFile = OpenSymbolFile(argc > 1 ? argv[1] : "");
    if (count == 0 || pFile->m_code.empty())
    {
        fprintf(stderr, "usage: NameAddresses FILE COUNT [list|names]\n");
        return 2;
    }
    const LoadedSegment code = pFile->m_code.front();
    if (what != "list")
    {
        Measure(argv[1], code, count, what == "names");
        return 0;
    }
    for (uint64_t i = 0; i < count; ++i)
    {
        printf("%#lx\n", code.m_address + code.m_size * i / count);
    }
    return 0;
}
