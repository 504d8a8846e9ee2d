// qel: the command-line program of the library.
#include <exception>
#include <iostream>

#include <CLI/CLI.hpp>

#include "commands.h"
#include <qel/xobject.h>
#include <qel/xstring.h>

namespace {

constexpr AddCommands groups[] = {&AddNameServiceCommands, &AddServerCommands};

} // namespace

int main(int argc, char** argv)
{
    CLI::App program("Serves and asks the parts of a distributed system.", "qel");
    program.set_version_flag("--version", "qel " QEL_VERSION);
    program.require_subcommand(1);
    try {
        for (const AddCommands add : groups)
            add(program);
        program.parse(argc, argv);
        return 0;
    } catch (const CLI::ParseError& problem) {
        return program.exit(problem) == 0 ? 0 : 2;
    } catch (const CommandFailed& failed) {
        return failed.status;
    } catch (const std::exception& failure) {
        std::cerr << "qel: " << failure.what() << std::endl;
    } catch (xthrowable* failure) {
        std::cerr << "qel: " << failure->getQelTypeName() << std::endl;
    }
    return 1;
}
