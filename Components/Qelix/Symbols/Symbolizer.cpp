#include "Symbols/Symbolizer.h"

#include <fmt/format.h>
#include <string_view>

namespace qelix
{
namespace
{

constexpr const char* ZORV_NO_MODULE = "[no module]";
constexpr std::string_view g_unwindingModules[] = {"libZorUserModeTracingAgent.so", "libunwind.so"};

uint32_t FunctionId(Symbolizer* pSymbolizer, std::string name, const std::string& module)
{
    const auto [at, isNew] = pSymbolizer->m_functionIds.emplace(
        module + '\0' + name, static_cast<uint32_t>(pSymbolizer->m_functions.size()));
    if (isNew)
    {
        pSymbolizer->m_functions.push_back({std::move(name), module});
    }
    return at->second;
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

const SymbolFile& FileOf(Symbolizer* pSymbolizer, const std::string& path)
{
    std::unique_ptr<SymbolFile>& pFile = pSymbolizer->m_files[path];
    if (pFile == nullptr)
    {
        pFile = OpenSymbolFile(path);
    }
    return *pFile;
}

CodePlace LookUp(Symbolizer* pSymbolizer, const SymbolFile& file, uint64_t address)
{
    CodePlace place;
    place.m_isUnwinding = IsUnwindingModule(file.m_path);
    place.m_isSignalReturn = IsSignalReturn(file, address);
    for (std::string& name : FunctionsAt(file, address))
    {
        place.m_functions.push_back(FunctionId(pSymbolizer, std::move(name), file.m_path));
    }
    if (place.m_functions.empty())
    {
        place.m_functions.push_back(
            FunctionId(pSymbolizer, fmt::format("{}+{:#x}", ModuleName(file.m_path), address), file.m_path));
    }
    return place;
}

const CodePlace& PlaceIn(Symbolizer* pSymbolizer, const Mapping& mapping, uint64_t address)
{
    const SymbolFile& file = FileOf(pSymbolizer, mapping.m_path);
    const uint64_t inFile = AddressInFile(file, mapping.m_end - mapping.m_start, address - mapping.m_start);
    std::unordered_map<uint64_t, CodePlace>& places = pSymbolizer->m_places[mapping.m_path];
    const auto found = places.find(inFile);
    return found != places.end() ? found->second
                                 : places.emplace(inFile, LookUp(pSymbolizer, file, inFile)).first->second;
}

const CodePlace& Nowhere(Symbolizer* pSymbolizer)
{
    if (pSymbolizer->m_nowhere.m_functions.empty())
    {
        pSymbolizer->m_nowhere.m_functions.push_back(FunctionId(pSymbolizer, ZORV_NO_MODULE, ZORV_NO_MODULE));
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
