#pragma once

#include <string>

#include "commands.h"

// What the commands that work on files, configuration files and the registry say of a failure.

/// What the thread's last platform error is about, such as "access denied".
std::string LastErrorText();
/// Ends the program for the thread's last platform error: the answer is no when what was asked for is not
/// there, is there already, or is not allowed, else input or output failed.
[[noreturn]] void FailForLastError(const std::string& what);
/// The failure that a caught exception of the file library is, and releases it; paths as on this host.
CommandFailed FileFailureOf(xthrowable* caught);
