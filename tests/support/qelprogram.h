#pragma once

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <qel/base/btkfd.h>

#include "support/child.h"

struct Outcome
{
    int status;
    std::string output;
};

/// Runs a shell command; the outcome holds both of its outputs together.
inline Outcome Line(const std::string& line)
{
    FILE* const pipe = popen(("{ " + line + "\n} 2>&1").c_str(), "r");
    if (pipe == nullptr)
        return {-1, "not run"};
    std::string output;
    for (int c = 0; (c = std::fgetc(pipe)) != EOF;)
        output += static_cast<char>(c);
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

/// Runs the program qel, as Line.
inline Outcome Qel(const std::string& arguments)
{
    return Line(QEL_PROGRAM " " + arguments + " 2>&1");
}

/// The program qel, or another one, beside the test, which writes its standard input and reads its standard
/// output. The destructor kills it.
class RunningQel
{
public:
    explicit RunningQel(std::vector<std::string> words) : RunningQel(QEL_PROGRAM, std::move(words), false) {}
    /// `isSilent`: its standard error output is discarded.
    RunningQel(std::string path, std::vector<std::string> words, bool isSilent)
        : program(std::move(path)), arguments(std::move(words)), silent(isSilent),
          child([this] { return run(); }), input(std::move(ends[0][1])), output(std::move(ends[1][0]))
    {
        for (auto& pipe : ends)
            for (btkFd& end : pipe)
                end.Reset();
    }

    /// The next line, without its end; an incomplete one when the output ends or nothing arrives.
    std::string line() const
    {
        std::string text;
        for (char c = 0;
             btkIsReadable(output.Get(), btkTimeval(20.0)) && btkRead(output.Get(), &c, 1) == 1 && c != '\n';)
            text += c;
        return text;
    }
    /// The rest of the output.
    std::string rest() const
    {
        std::string text;
        char block[4096];
        for (std::ptrdiff_t size; btkIsReadable(output.Get(), btkTimeval(20.0)) &&
                                  (size = btkRead(output.Get(), block, sizeof block)) > 0;)
            text.append(block, static_cast<std::size_t>(size));
        return text;
    }
    /// The port of a server, from the first line that it writes.
    int port() const
    {
        const std::string said = line();
        const std::size_t place = said.rfind(" port ");
        if (said.rfind("serving ", 0) != 0 || place == std::string::npos) {
            ADD_FAILURE() << "does not serve: " << said;
            return 0;
        }
        return std::atoi(said.c_str() + place + 6);
    }

private:
    int run()
    {
        dup2(ends[0][0].Get(), 0);
        dup2(ends[1][1].Get(), 1);
        if (silent)
            dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), 2);
        std::vector<char*> pointers = {program.data()};
        for (std::string& argument : arguments)
            pointers.push_back(argument.data());
        pointers.push_back(nullptr);
        execv(program.c_str(), pointers.data());
        return 127;
    }

    struct Pipe
    {
        explicit Pipe(btkFd (&pipe)[2])
        {
            int made[2] = {-1, -1};
            if (pipe2(made, O_CLOEXEC) != 0)
                ADD_FAILURE() << "no pipe";
            pipe[0].Reset(made[0]);
            pipe[1].Reset(made[1]);
        }
    };

    std::string program;
    std::vector<std::string> arguments;
    bool silent;
    btkFd ends[2][2];
    Pipe in{ends[0]}, out{ends[1]};

public:
    ChildProcess child;
    btkFd input, output;
};
