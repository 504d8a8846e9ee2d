#pragma once

#include <string>

/// Shows the folder of a program or of an authority. Warns on the standard error output of what is valid for less than
/// two weeks. Ends with "no" when something cannot be used.
void ShowFolder(const std::string& path);
