#pragma once

#include <cstdio>
#include <string>

#include <sys/wait.h>

struct Outcome
{
    int status;
    std::string output;
};

/// Runs the program qel; what it writes to both of its outputs comes together.
inline Outcome Qel(const std::string& arguments)
{
    FILE* const pipe = popen((QEL_PROGRAM " " + arguments + " 2>&1").c_str(), "r");
    if (pipe == nullptr)
        return {-1, "not run"};
    std::string output;
    for (int c = 0; (c = std::fgetc(pipe)) != EOF;)
        output += static_cast<char>(c);
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}
