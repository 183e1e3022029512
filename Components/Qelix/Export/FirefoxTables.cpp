#include "Export/FirefoxTables.h"

#include <algorithm>
#include <fmt/format.h>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_COLUMN_MEMORY = std::size_t{1} << 20;

// The thread's own index of an id.
uint32_t IndexOf(std::unordered_map<uint32_t, uint32_t>* pIndices, std::vector<uint32_t>* pIds, uint32_t id)
{
    const auto [at, isNew] = pIndices->emplace(id, static_cast<uint32_t>(pIds->size()));
    if (isNew)
    {
        pIds->push_back(id);
    }
    return at->second;
}

std::string NumberOrNull(uint32_t number)
{
    return number == 0 ? "null" : std::to_string(number);
}

template <typename List, typename ToJson>
void PutList(Output* pOutput, const char* pName, const List& list, ToJson toJson)
{
    Put(pOutput, fmt::format(",\"{}\":[", pName));
    bool isFirst = true;
    for (const auto& item : list)
    {
        Put(pOutput, isFirst ? "" : ",");
        Put(pOutput, toJson(item));
        isFirst = false;
    }
    Put(pOutput, "]");
}

void PutStackTable(Output* pOutput, const ThreadTables& tables)
{
    const std::size_t count = tables.m_frames.size();
    Put(pOutput, fmt::format(",\n\"stackTable\":{{\"length\":{}", count));
    PutList(pOutput, "prefix", tables.m_prefixes,
            [](const std::optional<uint32_t>& prefix) { return prefix ? std::to_string(*prefix) : "null"; });
    PutList(pOutput, "frame", tables.m_frames, [](uint32_t frame) { return std::to_string(frame); });
    PutConstantColumn(pOutput, "category", "0", count);
    PutConstantColumn(pOutput, "subcategory", "0", count);
    Put(pOutput, "}");
}

// A frame is a line of a function.
void PutFrameTable(Output* pOutput, ThreadTables* pTables)
{
    const std::vector<CodeLine>& known = pTables->m_pStream->m_symbolizer.m_lines;
    const std::size_t count = pTables->m_lines.size();
    Put(pOutput, fmt::format(",\n\"frameTable\":{{\"length\":{}", count));
    PutList(pOutput, "func", pTables->m_lines,
            [&](uint32_t line) {
                return std::to_string(
                    IndexOf(&pTables->m_functionOf, &pTables->m_functions, known[line].m_function));
            });
    PutList(pOutput, "line", pTables->m_lines,
            [&known](uint32_t line) { return NumberOrNull(known[line].m_line); });
    PutConstantColumn(pOutput, "address", "-1", count);
    for (const char* pName : {"inlineDepth", "category", "subcategory"})
    {
        PutConstantColumn(pOutput, pName, "0", count);
    }
    for (const char* pName : {"nativeSymbol", "innerWindowID", "implementation", "column"})
    {
        PutConstantColumn(pOutput, pName, "null", count);
    }
    Put(pOutput, "}");
}

void PutFunctionTable(Output* pOutput, ThreadTables* pTables, NameTable* pModules)
{
    const std::vector<Function>& known = pTables->m_pStream->m_symbolizer.m_functions;
    const std::size_t count = pTables->m_functions.size();
    Put(pOutput, fmt::format(",\n\"funcTable\":{{\"length\":{}", count));
    PutList(pOutput, "name", pTables->m_functions,
            [&](uint32_t function) { return std::to_string(TextOf(pTables, known[function].m_name)); });
    PutList(pOutput, "resource", pTables->m_functions,
            [&](uint32_t function) { return std::to_string(NameId(pModules, known[function].m_module)); });
    PutConstantColumn(pOutput, "isJS", "false", count);
    PutConstantColumn(pOutput, "relevantForJS", "false", count);
    PutList(pOutput, "fileName", pTables->m_functions,
            [&](uint32_t function)
            {
                const std::string& source = known[function].m_source;
                return source.empty() ? "null" : std::to_string(TextOf(pTables, source));
            });
    PutList(pOutput, "lineNumber", pTables->m_functions,
            [&known](uint32_t function) { return NumberOrNull(known[function].m_line); });
    PutConstantColumn(pOutput, "columnNumber", "null", count);
    Put(pOutput, "}");
}

void PutResourceTable(Output* pOutput, ThreadTables* pTables, const NameTable& modules)
{
    constexpr const char* pLibrary = "1"; // the kind of resource
    const std::size_t count = modules.m_names.size();
    Put(pOutput, fmt::format(",\n\"resourceTable\":{{\"length\":{}", count));
    PutList(pOutput, "name", modules.m_names,
            [&](const std::string& path) { return std::to_string(TextOf(pTables, ModuleName(path))); });
    PutConstantColumn(pOutput, "lib", "null", count);
    PutConstantColumn(pOutput, "host", "null", count);
    PutConstantColumn(pOutput, "type", pLibrary, count);
    Put(pOutput, "}");
}

} // namespace

void AddCell(Column* pColumn, const std::string& json)
{
    pColumn->m_text += (pColumn->m_count == 0 ? "" : ",") + json;
    ++pColumn->m_count;
    if (pColumn->m_text.size() >= ZORV_COLUMN_MEMORY)
    {
        AppendToSpill(&pColumn->m_spill, pColumn->m_text.data(), pColumn->m_text.size());
        pColumn->m_text.clear();
    }
}

uint32_t TextOf(ThreadTables* pTables, const std::string& text)
{
    return NameId(&pTables->m_texts, text);
}

std::optional<uint32_t> StackOf(ThreadTables* pTables, uint32_t stack)
{
    if (stack == 0)
    {
        return std::nullopt;
    }
    if (const auto known = pTables->m_stackOf.find(stack); known != pTables->m_stackOf.end())
    {
        return known->second;
    }
    const StackTable& stacks = pTables->m_pStream->m_stacks;
    const PlacedFrame& frame = stacks.m_frames[stack];
    std::optional<uint32_t> prefix = StackOf(pTables, frame.m_parent); // as deep as a stack
    const std::vector<uint32_t>& lines = stacks.m_places[frame.m_place].m_pPlace->m_lines;
    for (auto line = lines.rbegin(); line != lines.rend(); ++line)
    {
        pTables->m_prefixes.push_back(prefix);
        prefix = static_cast<uint32_t>(pTables->m_frames.size());
        pTables->m_frames.push_back(IndexOf(&pTables->m_lineOf, &pTables->m_lines, *line));
    }
    pTables->m_stackOf[stack] = *prefix;
    return prefix;
}

void PutColumn(Output* pOutput, const char* pName, const Column& column)
{
    Put(pOutput, fmt::format(",\"{}\":[", pName));
    std::string piece;
    for (uint64_t offset = 0; offset < column.m_spill.m_size; offset += piece.size())
    {
        piece.resize(std::min<uint64_t>(ZORV_COLUMN_MEMORY, column.m_spill.m_size - offset));
        ReadSpill(column.m_spill, offset, piece.data(), piece.size());
        Put(pOutput, piece);
    }
    Put(pOutput, column.m_text);
    Put(pOutput, "]");
}

void PutConstantColumn(Output* pOutput, const char* pName, const std::string& json, uint64_t count)
{
    Put(pOutput, fmt::format(",\"{}\":[", pName));
    for (uint64_t i = 0; i < count; ++i)
    {
        Put(pOutput, i == 0 ? "" : ",");
        Put(pOutput, json);
    }
    Put(pOutput, "]");
}

void PutCodeTables(Output* pOutput, ThreadTables* pTables)
{
    NameTable modules;
    PutStackTable(pOutput, *pTables);
    PutFrameTable(pOutput, pTables);
    PutFunctionTable(pOutput, pTables, &modules);
    PutResourceTable(pOutput, pTables, modules);
    Put(pOutput,
        ",\n\"nativeSymbols\":{\"length\":0,\"address\":[],\"functionSize\":[],\"libIndex\":[],\"name\":[]}");
    const std::vector<std::string>& texts = pTables->m_texts.m_names; // all are known by now
    PutList(pOutput, "stringArray", texts, [](const std::string& text) { return JsonText(text); });
}

} // namespace qelix
