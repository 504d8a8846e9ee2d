#pragma once

#include <memory>
#include <string>
#include <vector>

#include <qel/xmonlib.h>

#include "output.h"

namespace CLI {
class App;
}
struct Typed;

// Shared by the commands for monitor files.

using Monitor = std::unique_ptr<monFile, qelDelete>;

/// Opens the file; ends the program when that fails.
Monitor OpenMonitor(const std::string& path);
/// The parameters, new ones too, in the order of their names.
std::vector<monParam*> ParametersOf(monFile& file);
/// Those found so far, without looking for new ones.
std::vector<monParam*> KnownParametersOf(monFile& file);
/// Ends the program (the answer is no) when there is no such parameter.
monParam& ParameterOf(monFile& file, const std::string& path, const std::string& name);
/// "bool", "int", "real" or "string".
const char* KindOf(monParam& parameter);
/// The current value; null for the library's null and uninit.
Json ValueOf(monParam& parameter);
/// The names of the parameters in the file of the first argument, for the completion.
std::vector<std::string> KnownParameters(const Typed& typed);
/// Gives a command the argument FILE.
void AddMonitorFile(CLI::App& command, std::string& path);

/// Adds `watch` and `plot`. monwatch.cpp
void AddWatchCommands(CLI::App& group);
/// Adds `serve` and `export`. monweb.cpp
void AddWebCommands(CLI::App& group);
