// The tables of one thread of a Firefox profile. Those that grow with the records are kept on disk, column by
// column; those of the code grow with the program.
#pragma once

#include "Export/JsonText.h"
#include "Export/RecordStream.h"
#include "Export/SpillFile.h"

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace qelix
{

struct Column
{
    std::string m_text; // behind what was spilled
    SpillFile m_spill;
    uint64_t m_count = 0;
};

void AddCell(Column* pColumn, const std::string& json);

struct ThreadTables
{
    explicit ThreadTables(SessionStream* pStream) : m_pStream(pStream) {}

    SessionStream* m_pStream;

    Column m_sampleStacks;
    Column m_sampleTimes;
    Column m_markerNames;
    Column m_markerStarts;
    Column m_markerEnds;
    Column m_markerCategories;
    Column m_markerData;

    NameTable m_texts;
    std::unordered_map<uint32_t, uint32_t> m_functionOf; // by the symbolizer's id
    std::vector<uint32_t> m_functions;                   // the symbolizer's ids
    std::unordered_map<uint32_t, uint32_t> m_stackOf;    // by the session's id: the last of its stacks here
    std::vector<std::optional<uint32_t>> m_prefixes;     // of the stacks
    std::vector<uint32_t> m_frames;                      // of the stacks: indices of lines
    std::unordered_map<uint32_t, uint32_t> m_lineOf;     // by the symbolizer's id
    std::vector<uint32_t> m_lines;                       // the symbolizer's ids
};

uint32_t TextOf(ThreadTables* pTables, const std::string& text);

// The thread's own number of a stack; nothing when it has no frame.
std::optional<uint32_t> StackOf(ThreadTables* pTables, uint32_t stack);

// Each puts a comma first.
void PutColumn(Output* pOutput, const char* pName, const Column& column);
void PutConstantColumn(Output* pOutput, const char* pName, const std::string& json, uint64_t count);

// Stacks, frames, functions, modules and texts.
void PutCodeTables(Output* pOutput, ThreadTables* pTables);

} // namespace qelix
