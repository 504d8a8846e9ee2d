#pragma once

#include <string>

namespace CLI {
class App;
}

// Each group of commands has one source, and one row in the table of main.cpp.

/// Adds a group of commands to the program. The action of a command throws CommandFailed when it fails.
using AddCommands = void (*)(CLI::App& program);

void AddNameServiceCommands(CLI::App& program); // qel ns ...
void AddServerCommands(CLI::App& program);      // qel server ...

/// A text from elsewhere without what a terminal would obey.
inline std::string Printable(std::string text)
{
    std::erase_if(text, [](unsigned char c) { return c < ' ' || c == 127; });
    return text;
}

/// Why a command failed has been written to the standard error output; the program ends with `status`.
struct CommandFailed
{
    int status = 1;
};
