#pragma once

#include <csignal>
#include <gtest/gtest.h>
#include <pty.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <qel/base/btkfd.h>

/// The program qel with a terminal as its input and outputs. The destructor kills it.
class AtTerminal
{
public:
    explicit AtTerminal(const std::vector<std::string>& arguments)
    {
        child = forkpty(&terminal, nullptr, nullptr, nullptr);
        if (child == 0) {
            std::vector<char*> words;
            for (const std::string& word : arguments)
                words.push_back(const_cast<char*>(word.c_str()));
            words.push_back(nullptr);
            execv(QEL_PROGRAM, words.data());
            _exit(127);
        }
    }
    ~AtTerminal()
    {
        if (child > 0) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
        close(terminal);
    }
    AtTerminal(const AtTerminal&) = delete;
    AtTerminal& operator=(const AtTerminal&) = delete;

    /// Reads until `text` has been written, the program has exited, or 20 seconds have passed. What was written
    /// behind it is read by the next call.
    std::string readUntil(const std::string& text)
    {
        std::string all = std::exchange(rest, {});
        char block[1000];
        const btkTimeval end = btkTimeval::Now() + btkTimeval(20.0);
        while (text.empty() || all.find(text) == std::string::npos) {
            const bool isReady = btkIsReadable(terminal, end - btkTimeval::Now());
            const ssize_t count = isReady ? read(terminal, block, sizeof block) : 0;
            if (count <= 0)
                break;
            all.append(block, static_cast<std::size_t>(count));
        }
        if (const std::size_t found = all.find(text); !text.empty() && found != std::string::npos) {
            rest = all.substr(found + text.size());
            all.resize(found + text.size());
        }
        return all;
    }

    void type(char key) const { EXPECT_EQ(write(terminal, &key, 1), 1); }

    void terminate() const { EXPECT_EQ(kill(child, SIGTERM), 0); }

    int wait()
    {
        int status = -1;
        waitpid(child, &status, 0);
        child = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    int terminal = -1;
    pid_t child = -1;
    std::string rest;
};
