// Platform errors as texts and exit statuses.
#include "files.h"

#include <CLI/App.hpp>
#include <algorithm>
#include <filesystem>
#include <iterator>
#include <string>
#include <system_error>

#include <qel/fsexception.h>
#include <qel/fspath.h>
#include <qel/platform/errornumbers.h>
#include <qel/platform/lasterror.h>

namespace {

constexpr unsigned answers[] = {
    ERROR_FILE_NOT_FOUND,       ERROR_PATH_NOT_FOUND, ERROR_ACCESS_DENIED, ERROR_FILE_EXISTS,
    ERROR_INVALID_NAME,         ERROR_DIR_NOT_EMPTY,  ERROR_BAD_PATHNAME,  ERROR_ALREADY_EXISTS,
    ERROR_FILENAME_EXCED_RANGE, ERROR_DIRECTORY,      ERROR_KEY_DELETED,
};

bool isNative = false;

Exit statusOf(unsigned error)
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
    Fail(statusOf(GetLastError()), what, LastErrorText());
}

CommandFailed FileFailureOf(xthrowable* caught)
{
    // Errors that the text of the exception's class already describes.
    constexpr unsigned said[] = {ERROR_FILE_NOT_FOUND,  ERROR_ACCESS_DENIED,  ERROR_NOT_SUPPORTED,
                                 ERROR_FILE_EXISTS,     ERROR_DISK_FULL,      ERROR_INVALID_NAME,
                                 ERROR_BAD_PATHNAME,    ERROR_ALREADY_EXISTS, ERROR_IO_DEVICE,
                                 ERROR_NOT_ENOUGH_QUOTA};

    const bool isInvalidPath = fsXInvalidPath::softcast(caught) != nullptr;
    const bool isAnswer = fsXDoesNotExist::softcast(caught) != nullptr ||
                          fsXNoPermission::softcast(caught) != nullptr ||
                          fsXFileExists::softcast(caught) != nullptr || isInvalidPath ||
                          fsXInvalidName::softcast(caught) != nullptr;
    const bool isAnyOther = fsXOther::softcast(caught) != nullptr;
    const bool isInterrupted = fsXSignal::softcast(caught) != nullptr;
    std::string reason;
    if (const fsXException* const known = fsXException::softcast(caught)) {
        const unsigned error = known->getPlatformError();
        const xstring text = known->getPlatformText();
        if (text == nullptr)
            reason = "error " + std::to_string(error);
        else if (isAnyOther || (isInvalidPath && error != ERROR_BAD_PATHNAME) ||
                 std::find(std::begin(said), std::end(said), error) == std::end(said))
            reason = text.CastToCString();
    }
    CommandFailed failed = FailureOf(caught, isAnswer ? Exit::no : Exit::peer);
    if (isInterrupted)
        failed.why = "interrupted";
    else if (isAnyOther) // its own text has no information
        failed.why = reason;
    else if (!reason.empty())
        failed.why += ": " + reason;
    failed.what = ShownAs(failed.what);
    return failed;
}

std::string FindHelper(const char* name, const char* package)
{
    std::error_code failed;
    const std::filesystem::path here = std::filesystem::read_symlink("/proc/self/exe", failed).parent_path();
    for (const std::filesystem::path& program : {here / name, here / "../libexec/qelstd" / name})
        if (std::filesystem::exists(program, failed))
            return program.string();
    Fail(Exit::peer, name, std::string("no such program; the package ") + package + " has it");
}

void OfferNative(CLI::App& command)
{
    command.add_flag(
        "--native", isNative,
        "Take and print paths in the library's own form, such as C:\\data, instead of the operating system's");
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
