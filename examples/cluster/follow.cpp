// Follows a server from machine to machine: follow NAME
// Asks it ten times a second, and prints what it answers, or why it does not, whenever that changes.

#include <chrono>
#include <iostream>
#include <string>
#include <thread>

#include <qel/netsocketstream.h>
#include <qel/qelcpp.h>
#include <qel/qelfind.h>

using namespace std::literals;

namespace {

std::string ask(const char* name)
{
    try {
        // sample connect
        const auto server = qel::connect(name, 1s); // wherever it is now
        server->setITimeout(1s);
        return server->ReadString(nullptr).CastToCString();
        // end
    } catch (xthrowable* thrown) {
        return "no answer: "s + qel::caught(thrown).what().CastToCString();
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: follow NAME\n";
        return 2;
    }
    for (std::string last; std::cout; std::this_thread::sleep_for(100ms)) {
        const std::string answer = ask(argv[1]);
        if (answer != last)
            std::cout << answer << std::endl;
        last = answer;
    }
}
