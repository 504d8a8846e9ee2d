#include "fsdir.h"

#include <cstring>
#include <string>
#include <utility>

#include <qel/base/btkstring.h>
#include <qel/platform/directories.h>
#include <qel/platform/errortable.h>

#include "fspath_p.h"

struct fsiDir::Entry : WIN32_FIND_DATAA
{
};

namespace {

bool isDots(const char* name)
{
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

} // namespace

bool fsMatchesPattern(const char* name, const char* pattern)
{
    return btkStringMatch(name, pattern);
}

fsiDir::fsiDir() : entry(new Entry)
{
}

fsiDir::~fsiDir()
{
    const unsigned error = GetLastError();
    if (open)
        Close();
    delete entry;
    SetLastError(error);
}

bool fsiDir::Open(const char* directory)
{
    if (open)
        Close();
    directory = fsTextOf(directory);
    if (std::strlen(directory) > fsNativePath::maxLength)
        return platFailWith(ERROR_FILENAME_EXCED_RANGE);
    search = FindFirstFileA((std::string(directory) + "\\*").c_str(), entry);
    open = search != INVALID_HANDLE_VALUE;
    firstPending = open;
    return open;
}

const char* fsiDir::readName(fsIOStatus& status)
{
    do {
        SetLastError(ERROR_SUCCESS);
        if (!firstPending && !FindNextFileA(search, entry)) {
            status = GetLastError() == ERROR_NO_MORE_FILES ? fsIOEnd : fsIOFailed;
            return nullptr;
        }
        firstPending = false;
    } while (isDots(entry->cFileName));
    status = fsIOOk;
    return entry->cFileName;
}

fsIOStatus fsiDir::Read(xstring& name)
{
    fsIOStatus status;
    if (const char* const read = readName(status))
        name = read;
    return status;
}

fsIOStatus fsiDir::ReadNextMatching(const char* pattern, xstring& name)
{
    pattern = fsTextOf(pattern);
    if (*pattern == '\0')
        return fsIOEnd;
    fsIOStatus status;
    const char* read;
    do {
        read = readName(status);
    } while (read != nullptr && !fsMatchesPattern(read, pattern));
    name = read;
    return status;
}

bool fsiDir::Close()
{
    open = false;
    return FindClose(std::exchange(search, nullptr)) == TRUE;
}
