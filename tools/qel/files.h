#pragma once

#include <string>

#include "output.h"

namespace CLI {
class App;
}

// Failure reports of the commands for files, configuration files and the registry, and where files are.

// Platform errors that commands distinguish.

/// The text of the thread's last platform error, such as "access denied".
std::string LastErrorText();
/// Ends the program for the thread's last platform error: the answer is no for a missing node, an existing
/// one, or a denied access; otherwise an input or output failure.
[[noreturn]] void FailForLastError(const std::string& what);
/// Converts a caught exception of the file library to a failure, and releases it; paths are formatted by
/// ShownAs.
CommandFailed FileFailureOf(xthrowable* caught);

/// Returns the path of a program that does a part of a command with libraries that this one does without: it lies
/// beside this one, or where its package installs it. Fails when it is not there.
std::string FindHelper(const char* name, const char* package);

/// Gives the command the flag --native, which PathOf and ShownAs read.
void OfferNative(CLI::App& command);
/// The library's path for a typed one, which is a path of the operating system unless --native was given.
std::string PathOf(const std::string& typed);
/// The printed form of a path or a name of the library: the operating system's unless --native was given.
std::string ShownAs(const std::string& path);
