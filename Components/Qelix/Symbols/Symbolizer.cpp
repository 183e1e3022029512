#include "Symbols/Symbolizer.h"

#include <fmt/format.h>
#include <string_view>

namespace qelix
{
namespace
{

constexpr const char* ZORV_NO_MODULE = "[no module]";
constexpr std::string_view g_unwindingModules[] = {"libZorUserModeTracingAgent.so", "libunwind.so"};

uint32_t SourceId(Symbolizer* pSymbolizer, const std::string& path)
{
    const auto [at, isNew] =
        pSymbolizer->m_sourceIds.emplace(path, static_cast<uint32_t>(pSymbolizer->m_sources.size()));
    if (isNew)
    {
        pSymbolizer->m_sources.push_back(path);
    }
    return at->second;
}

uint32_t FunctionId(Symbolizer* pSymbolizer, Function function)
{
    // Two files of one program may each have a function of the same name.
    const auto [at, isNew] = pSymbolizer->m_functionIds.emplace(
        function.m_module + '\0' + function.m_name + '\0' + function.m_source,
        static_cast<uint32_t>(pSymbolizer->m_functions.size()));
    if (isNew)
    {
        pSymbolizer->m_functions.push_back(std::move(function));
    }
    return at->second;
}

void AddFrame(Symbolizer* pSymbolizer, CodePlace* pPlace, const CodeLine& line)
{
    const auto [at, isNew] =
        pSymbolizer->m_lineIds.emplace(line, static_cast<uint32_t>(pSymbolizer->m_lines.size()));
    if (isNew)
    {
        pSymbolizer->m_lines.push_back(line);
    }
    pPlace->m_functions.push_back(line.m_function);
    pPlace->m_lines.push_back(at->second);
}

bool IsUnwindingModule(const std::string& path)
{
    const std::string name = ModuleName(path);
    for (const std::string_view module : g_unwindingModules)
    {
        if (name.starts_with(module))
        {
            return true;
        }
    }
    return false;
}

uint32_t SourceInSession(Symbolizer* pSymbolizer, Module* pModule, uint32_t source)
{
    std::vector<uint32_t>& ids = pModule->m_sourceIds;
    while (ids.size() <= source)
    {
        ids.push_back(SourceId(pSymbolizer, pModule->m_pFile->m_debugInfo.m_sources[ids.size()]));
    }
    return ids[source];
}

uint32_t FunctionInSession(Symbolizer* pSymbolizer, Module* pModule, uint32_t function)
{
    const SymbolFile& file = *pModule->m_pFile;
    std::vector<uint32_t>& ids = pModule->m_functionIds;
    while (ids.size() <= function)
    {
        const FileFunction& next = file.m_functions[ids.size()];
        ids.push_back(
            FunctionId(pSymbolizer, {next.m_name, file.m_path,
                                     file.m_debugInfo.m_sources[next.m_place.m_source], next.m_place.m_line}));
    }
    return ids[function];
}

CodePlace LookUp(Symbolizer* pSymbolizer, Module* pModule, uint64_t address)
{
    SymbolFile* pFile = pModule->m_pFile.get();
    CodePlace place;
    place.m_isUnwinding = IsUnwindingModule(pFile->m_path);
    place.m_isSignalReturn = IsSignalReturn(*pFile, address);
    for (const FileFrame& frame : FramesAt(pFile, address))
    {
        AddFrame(pSymbolizer, &place,
                 {FunctionInSession(pSymbolizer, pModule, frame.m_function),
                  SourceInSession(pSymbolizer, pModule, frame.m_source), frame.m_line});
    }
    place.m_isNamed = !place.m_functions.empty();
    if (!place.m_isNamed)
    {
        const std::string name =
            fmt::format("{}+{:#x}", ModuleName(pFile->m_path), StartOfUnnamed(pFile, address));
        AddFrame(pSymbolizer, &place, {FunctionId(pSymbolizer, {name, pFile->m_path})});
    }
    return place;
}

void OpenModule(Module* pModule, const std::string& path, const RecordedFiles& recorded)
{
    pModule->m_pFile = OpenSymbolFile(path);
    pModule->m_match = MatchOf(*pModule->m_pFile, recorded);
    if (pModule->m_match == ZORV_FILE_NOT_HERE)
    {
        pModule->m_pFile = std::make_unique<SymbolFile>(); // another kernel's code has other addresses
        pModule->m_pFile->m_path = path;
    }
}

const CodePlace& PlaceIn(Symbolizer* pSymbolizer, const Mapping& mapping, uint64_t address)
{
    Module& module = pSymbolizer->m_modules[mapping.m_path];
    if (module.m_pFile == nullptr)
    {
        OpenModule(&module, mapping.m_path, pSymbolizer->m_recorded);
    }
    const uint64_t inFile =
        AddressInFile(*module.m_pFile, mapping.m_end - mapping.m_start, address - mapping.m_start);
    const auto found = module.m_places.find(inFile);
    return found != module.m_places.end()
               ? found->second
               : module.m_places.emplace(inFile, LookUp(pSymbolizer, &module, inFile)).first->second;
}

const CodePlace& Nowhere(Symbolizer* pSymbolizer)
{
    if (pSymbolizer->m_nowhere.m_functions.empty())
    {
        AddFrame(pSymbolizer, &pSymbolizer->m_nowhere,
                 {FunctionId(pSymbolizer, {ZORV_NO_MODULE, ZORV_NO_MODULE})});
    }
    return pSymbolizer->m_nowhere;
}

const CodePlace& FindPlace(ProcessSymbols* pProcess, uint64_t address, uint64_t time)
{
    const Mapping* pMapping = FindMapping(pProcess->m_map, address, time);
    return pMapping == nullptr ? Nowhere(pProcess->m_pSymbolizer)
                               : PlaceIn(pProcess->m_pSymbolizer, *pMapping, address);
}

} // namespace

std::size_t CodeLineHash::operator()(const CodeLine& line) const
{
    const uint64_t place = uint64_t{line.m_source} << 32 | line.m_line;
    return (place * 0x9E3779B97F4A7C15 ^ line.m_function) * 0x9E3779B97F4A7C15 >> 16;
}

ProcessSymbols SymbolsOf(Symbolizer* pSymbolizer, ModuleMap map)
{
    return {pSymbolizer, std::move(map), {}};
}

const CodePlace& PlaceOf(ProcessSymbols* pProcess, uint64_t address, uint64_t time)
{
    if (!pProcess->m_map.m_isStable)
    {
        return FindPlace(pProcess, address, time);
    }
    const CodePlace*& pKnown = pProcess->m_known[address];
    if (pKnown == nullptr)
    {
        pKnown = &FindPlace(pProcess, address, time);
    }
    return *pKnown;
}

std::string CallName(ProcessSymbols* pProcess, uint64_t address, uint64_t time)
{
    const CodePlace& place = PlaceOf(pProcess, address, time);
    const Function& function = pProcess->m_pSymbolizer->m_functions[place.m_functions.back()];
    return function.m_module == ZORV_NO_MODULE ? fmt::format("{:#x}", address) : function.m_name;
}

std::string ModuleName(const std::string& path)
{
    return path.substr(path.rfind('/') + 1);
}

std::size_t FirstOwnFrame(ProcessSymbols* pProcess, const std::vector<uint64_t>& stack, uint64_t time)
{
    std::size_t first = 0;
    while (first < stack.size() && PlaceOf(pProcess, stack[first], time).m_isUnwinding)
    {
        ++first;
    }
    // Without a frame of the handler what is here was not put here by a signal of ours.
    const bool isDelivery =
        first != 0 && first < stack.size() && PlaceOf(pProcess, stack[first], time).m_isSignalReturn;
    return first + (isDelivery ? 1 : 0);
}

uint64_t FrameAddress(ProcessSymbols* pProcess, const std::vector<uint64_t>& stack, std::size_t index,
                      std::size_t firstOwnFrame, uint64_t time)
{
    const uint64_t address = stack[index];
    // What a signal interrupted, and the first byte of what it returns to: nothing was called from before them.
    const bool isExact = index == firstOwnFrame ||
                         (index + 1 == firstOwnFrame && PlaceOf(pProcess, address, time).m_isSignalReturn);
    return isExact || address == 0 ? address : address - 1;
}

} // namespace qelix
