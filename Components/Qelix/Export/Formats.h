// The forms in which a session is handed to other tools. Each writes the session as a stream.
#pragma once

#include "Export/Output.h"
#include "Export/RecordStream.h"

#include <string>
#include <vector>

namespace qelix
{

void WriteFolded(SessionStream* pStream, Output* pOutput);
void WriteSpeedscope(SessionStream* pStream, Output* pOutput);
void WritePprof(SessionStream* pStream, Output* pOutput);
void WritePprofLegacy(SessionStream* pStream, Output* pOutput);
void WriteChromeTrace(SessionStream* pStream, Output* pOutput);
void WritePerfetto(SessionStream* pStream, Output* pOutput);
void WriteFirefox(SessionStream* pStream, Output* pOutput);
void WriteJsonLines(SessionStream* pStream, Output* pOutput);

// These need a path of their own, where nothing lies yet.
void WriteSqlite(SessionStream* pStream, const std::string& path);

// One table of the session.
std::vector<std::string> CsvTables();
void WriteCsvTable(SessionStream* pStream, const std::string& table, Output* pOutput);

// Makes, in a folder, TABLE/rank=N/HOST_PID.csv for every process.
void WriteCsvPartitions(SessionStream* pStream, const std::string& path, Compression compression);

} // namespace qelix
