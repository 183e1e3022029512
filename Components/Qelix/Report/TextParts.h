// Private to the texts of the report: what their sections have in common.
#pragma once

#include "Report/Report.h"
#include "Report/Screen.h"
#include "Report/SessionFacts.h"
#include "Report/Table.h"

#include <cstdint>
#include <iterator>
#include <string>
#include <vector>

namespace qelix
{

constexpr const char* ZORV_AGENT_FILE = "libZorUserModeTracingAgent.so";

using Lines = std::back_insert_iterator<std::string>;

std::string NameOr(const std::string& name, const char* pOtherwise);
std::string Plural(uint64_t count, const char* pSingular, const char* pPlural);
std::string ThreadLabel(const SessionFacts& session, const MarkedPid& process, int32_t tid); // "worker (4711)"
std::string ProcessText(const MarkedPid& process); // "4711"; "s1@4711" in a merged session
std::size_t CountThreads(const ProcessFacts& process);

// "pthread below 1.00 µs; io, syscall below 10.0 µs": what was too short to be recorded. Empty when nothing
// was.
std::string ThresholdsText(const Thresholds& thresholds);
std::string ClassesOff(const Thresholds& thresholds); // names, or nothing

// The last column of a merged session's tables: which of its sessions a process belongs to.
void AddMarkColumn(Table* pTable, const SessionFacts& session);
void AddMark(Table* pTable, const SessionFacts& session, const MarkedPid& process); // into the last row

// What keeps the report from being the whole truth, a line each.
std::vector<std::string> CautionLines(const SessionFacts& session);

// Each appends its section of the full text, or nothing where there is nothing to say.
void WriteProcessTree(Lines out, const SessionFacts& session);
void WriteCalls(Lines out, const ProcessFacts& process);
void WriteCpu(Lines out, const SessionFacts& session);

// Sections of the one screen.
void WriteTimeTable(Lines out, const SessionFacts& session, const Screen& screen, const ReportShape& shape);
void WriteLockTable(Lines out, const SessionFacts& session, const Screen& screen, const ReportShape& shape);
void WriteFunctionTable(Lines out, const SessionFacts& session, const Screen& screen, const ReportShape& shape);
void WriteReadThis(Lines out, const SessionFacts& session, const Screen& screen);

} // namespace qelix
