#pragma once

#include <qel/fsfile.h>
#include <qel/xstring.h>

/// Whether `name` matches `pattern`: "*" matches any number of characters, "?" exactly one, any other
/// character itself. Case-sensitive.
QEL_API bool fsMatchesPattern(const char* name, const char* pattern);

/// An open directory; returns the names of its entries one at a time, in the platform's order and without "."
/// and "..". Nothing is thrown: a failed call returns false or fsIOFailed, and GetLastError() gives the
/// reason. Used by one thread at a time.
///
///     fsiDir directory;
///     xstring name;
///     if (directory.Open("/var/log"))
///         while (directory.Read(name) == fsIOOk)
///             std::cout << name << '\n';
class QEL_API fsiDir
{
public:
    fsiDir();
    fsiDir(const fsiDir&) = delete;
    fsiDir& operator=(const fsiDir&) = delete;
    /// Closes; leaves the last error as it was.
    ~fsiDir();

    /// Begins with the first entry; wildcards in the name of the directory have no special meaning. A name of
    /// more than 259 bytes fails (ERROR_FILENAME_EXCED_RANGE). A directory that is open is closed first.
    bool Open(const char* directory);
    /// The name of the next entry.
    fsIOStatus Read(xstring& name);
    /// The name of the next entry that matches `pattern`; null when there is none. fsIOEnd at once, with
    /// `name` unchanged, when `pattern` is null or empty.
    fsIOStatus ReadNextMatching(const char* pattern, xstring& name);
    bool Close();

private:
    /// The next name, which stays valid until the following call; null at the end and on failure.
    const char* readName(fsIOStatus& status);

    struct Entry;
    bool open = false;
    bool firstPending = false; // Open has fetched an entry that Read has not returned yet
    void* search = nullptr;    // of the platform
    Entry* entry;
};
