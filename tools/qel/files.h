#pragma once

#include <string>

#include "commands.h"

// What the commands that work on files, configuration files and the registry say of a failure.

// Platform errors that commands tell apart.

/// What the thread's last platform error is about, such as "access denied".
std::string LastErrorText();
/// Ends the program for the thread's last platform error: the answer is no when what was asked for is not
/// there, is there already, or is not allowed, else input or output failed.
[[noreturn]] void FailForLastError(const std::string& what);
/// The failure that a caught exception of the file library is, and releases it; paths as ShownAs has them.
CommandFailed FileFailureOf(xthrowable* caught);

/// Gives the command the flag --native, which PathOf and ShownAs look at.
void OfferNative(CLI::App& command);
/// The library's path for one that was typed, which is the host's own unless --native was given.
std::string PathOf(const std::string& typed);
/// A path or a name of the library as it is printed: as the host has it unless --native was given.
std::string ShownAs(const std::string& path);
