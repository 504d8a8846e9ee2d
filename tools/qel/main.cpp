// qel: the command-line program of the library.
#include <CLI/CLI.hpp>
#include <cstring>
#include <exception>
#include <iostream>

#include <qel/base/btkfd.h>

#include "commands.h"
#include "program.h"

namespace {

// If the program was started without a standard stream, its number must not be taken by the first file or
// connection that is opened. Reading such a stream returns end of file, and writing it fails.
void fillStandardStreams()
{
    btkFd opened;
    do {
        opened.Release();
        opened = btkOpenFile("/dev/null", btkOpenRead);
    } while (opened && opened.Get() <= 2);
}

int report(const CLI::App& program, const CommandFailed& failed)
{
    const std::string what = failed.what.empty() ? std::string() : Printable(failed.what) + ": ";
    if (!failed.why.empty())
        std::cerr << CommandLineOf(program) << ": " << what << Printable(failed.why) << std::endl;
    return static_cast<int>(failed.status);
}

std::string whatIsWrong(const CLI::App& program, const CLI::ParseError& problem)
{
    const std::string command = CommandLineOf(program);
    const std::vector<std::string> left = program.remaining(true);
    const bool isUnknown = dynamic_cast<const CLI::RequiredError*>(&problem) != nullptr && !left.empty();
    const std::string meant = left.empty() ? std::string() : NearestWord(program, left.front());
    return (isUnknown
                ? (left.front().starts_with('-') ? "no such option: " : "no such command: ") + left.front()
                : problem.what()) +
           (meant.empty() ? std::string() : "; did you mean " + meant + "?") + " (see " + command +
           " --help)";
}

// The command that was named last, if it is a group and nothing follows; null: anything else.
const CLI::App* unfinishedGroup(const CLI::App& program, const CLI::ParseError& problem)
{
    const CLI::App& command = CommandOf(program);
    const bool isRequired = dynamic_cast<const CLI::RequiredError*>(&problem) != nullptr;
    const bool isGroup = command.get_require_subcommand_min() > 0;
    return isRequired && isGroup && program.remaining(true).empty() ? &command : nullptr;
}

int run(CLI::App& program, int argc, char** argv)
{
    try {
        BuildProgram(program);
        program.parse(argc, argv);
    } catch (const CLI::Success& asked) { // for the help or the version
        program.exit(asked);
    } catch (const CLI::ParseError& problem) {
        if (const CLI::App* const group = unfinishedGroup(program, problem)) {
            std::cerr << HelpText(*group, CommandLineOf(program));
            return static_cast<int>(Exit::usage);
        }
        return report(program, {Exit::usage, {}, whatIsWrong(program, problem)});
    } catch (const CommandFailed& failed) {
        return report(program, failed);
    } catch (const std::exception& failure) {
        return report(program, {Exit::peer, {}, failure.what()});
    } catch (xthrowable* failure) {
        return report(program, FailureOf(failure));
    }
    if (!std::cout.flush())
        return report(program, {Exit::peer, "standard output", std::strerror(errno)});
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    fillStandardStreams();
    CLI::App program("Runs and queries the parts of a distributed system.", "qel");
    return run(program, argc, argv);
}
