// What a platform error is, in words and as an exit status.
#include "files.h"

#include <algorithm>
#include <iterator>

#include <qel/fserror.h>
#include <qel/fspath.h>
#include <qel/platform/lasterror.h>

namespace {

// Not found (files, directories, values, keys), not allowed, exists, not a name or path.
constexpr unsigned answers[] = {2, 3, 5, 80, 123, 145, 161, 183, 206, 267, 1018};

bool isNative = false;

Exit StatusOf(unsigned error)
{
    return std::find(std::begin(answers), std::end(answers), error) != std::end(answers) ? Exit::no
                                                                                         : Exit::peer;
}

} // namespace

std::string LastErrorText()
{
    const unsigned error = GetLastError();
    char text[200];
    if (FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, error, 0, text,
                       sizeof text, nullptr) == 0)
        return "error " + std::to_string(error);
    return text;
}

void FailForLastError(const std::string& what)
{
    Fail(StatusOf(GetLastError()), what, LastErrorText());
}

CommandFailed FileFailureOf(xthrowable* caught)
{
    const std::string lastError = LastErrorText();
    const bool isAnswer =
        fsXDoesNotExist::softcast(caught) != nullptr || fsXNoPermission::softcast(caught) != nullptr ||
        fsXFileExists::softcast(caught) != nullptr || fsXInvalidPath::softcast(caught) != nullptr ||
        fsXInvalidName::softcast(caught) != nullptr;
    const bool isAnyOther = fsXOther::softcast(caught) != nullptr;
    const bool isInterrupted = fsXSignal::softcast(caught) != nullptr;
    CommandFailed failed = FailureOf(caught, isAnswer ? Exit::no : Exit::peer);
    if (isAnyOther) // its own text says nothing
        failed.why = lastError;
    if (isInterrupted)
        failed.why = "interrupted";
    failed.what = ShownAs(failed.what);
    return failed;
}

void OfferNative(CLI::App& command)
{
    command.add_flag(
        "--native", isNative,
        "Take and print paths in the library's own form, such as C:\\data, not as this host has them");
}

std::string PathOf(const std::string& typed)
{
    if (isNative)
        return typed;
    try {
        return fsPathFromHost(typed.c_str()).CastToCString();
    } catch (xthrowable* caught) {
        FailureOf(caught);
        Fail(Exit::no, typed, "lies on no drive; see QELSTD_DRIVE_C");
    }
}

std::string ShownAs(const std::string& path)
{
    return isNative ? path : fsPathToHost(path.c_str()).CastToCString();
}
