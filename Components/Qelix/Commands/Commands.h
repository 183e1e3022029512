// The subcommands. Each adds itself to the command line; what it does runs when that has been parsed, and
// its status becomes the command's.
#pragma once

#include <exception>
#include <string>
#include <vector>

namespace CLI
{
class App;
}

namespace qelix
{

struct Damage;

// The program and its arguments are there when the command line has been parsed.
void AddRunCommand(CLI::App* pApp, const std::vector<std::string>* pProgram, int* pStatus);
void AddRecordCommand(CLI::App* pApp, const std::vector<std::string>* pProgram, int* pStatus);
void AddSteerCommands(CLI::App* pApp, int* pStatus); // status, pause, resume, stop
void AddCheckCommand(CLI::App* pApp, int* pStatus);
void AddEnvCommand(CLI::App* pApp, int* pStatus);
void AddListCommand(CLI::App* pApp, int* pStatus);
void AddCompletionCommand(CLI::App* pApp, int* pStatus);
void AddHelpCommands(CLI::App* pApp, int* pStatus); // help, version
void AddDumpCommand(CLI::App* pApp, int* pStatus);
void AddReportCommand(CLI::App* pApp, int* pStatus);
void AddViewCommands(CLI::App* pApp, int* pStatus); // threads, locks, waits, io, blocked
void AddCpuCommand(CLI::App* pApp, int* pStatus);
void AddSymbolsCommand(CLI::App* pApp, int* pStatus);
void AddExportCommand(CLI::App* pApp, int* pStatus);
void AddCompareCommands(CLI::App* pApp, int* pStatus); // diff, merge, ranks
void AddPageCommands(CLI::App* pApp, int* pStatus);    // timeline, flame, html

// Text that leaves through standard output; ends the command when nothing can be written there.
void PrintOut(const std::string& text);

// One line of ours on standard error.
void PrintNote(const std::string& text);

// The same of a failure, in the form that --errors asks for.
void PrintFailure(const std::exception& failure);
void PrintDamage(const Damage& damage);

} // namespace qelix
