#pragma once

#include <qel/xsequence.h>
#include <qel/xstring.h>

class btkTimeval;
class lockFileBuf;

/// What a line of a configuration file has that is not kept, or may not be meant.
enum hmxConfigOddity {
    // writing the file back drops the line:
    hmxNoColon,    // it has no ":"
    hmxNoKey,      // nothing but blanks stands before its first ":"
    hmxOverridden, // a later line has the same key
    // the line is written otherwise:
    hmxBlanksInKey, // without them
    hmxNoValue,     // with "nil" as its value
    hmxNoLineEnd,   // with a line feed: it is the last line and has none
    // the line is kept:
    hmxCarriageReturn, // its value ends in one, as on other hosts
    hmxZeroByte        // GetValue gives what is before it
};

/// Is told what hmxConfigFile::Check finds.
class QEL_API hmxConfigOddityHandler
{
public:
    virtual ~hmxConfigOddityHandler() = default;
    /// Lines count from 1. `text` is the line up to a zero byte, valid during the call. `later`: the last
    /// line with the same key, for hmxOverridden; else 0.
    virtual void Invoke(hmxConfigOddity oddity, long long line, const char* text, long long later) = 0;
};

/// A small text file of lines `key:value`, held in memory, sorted by key, while it is open. Blanks and tabs
/// are removed from keys wherever they stand; a value is everything behind the first ":", and case counts.
/// When the file is read, lines without ":" and without a key are passed over, and of several lines with one
/// key the last counts.
///
/// An open file is locked: for reading together with other readers, for updating alone. Open waits for its
/// turn; readers that come while an update waits are let in after it, so a thread must not hold a file that
/// another one needs for going on. A thread that would wait for itself is refused: GetLastError() is 32
/// when it has the file open and one of the two openings is for updating. Used by one thread at a time.
class QEL_API hmxConfigFile
{
public:
    enum OpenMode { ReadOnly, ReadWrite };

    hmxConfigFile();
    hmxConfigFile(const hmxConfigFile&) = delete;
    hmxConfigFile& operator=(const hmxConfigFile&) = delete;
    /// Closes.
    ~hmxConfigFile();

    /// Closes the file that is open, then opens `path` and reads it; ReadWrite creates a missing file. False
    /// when that fails: no file is open then, and GetLastError() says why.
    bool Open(const char* path, OpenMode mode);
    /// The same, but waits for its turn `limit` seconds at most; 0 tries once. GetLastError() is 33 when the
    /// limit has passed.
    bool Open(const char* path, OpenMode mode, double limit);
    /// If anything was changed, writes the file back: one line for each entry in ascending order of the keys,
    /// and nothing else. The file then holds the old content or the new, whatever happens meanwhile; when it
    /// cannot be written, the old one stays, and nobody is told. A file that has several hard links, is a
    /// mount of its own, or stands in a folder that this process may not change is overwritten in place: a
    /// full disk changes nothing, but a kill in the middle can leave a mixture, which this class reads as the
    /// new content where it could keep that beside the file; docs/config.md has the details. Does nothing
    /// when no file is open.
    void Close();
    /// The same for callers who want to know: false when a change could not be written. GetLastError() says
    /// why: 1006, with nothing written, when others have replaced or changed the file since Open without
    /// asking for the lock. One that was deleted since is written anew.
    bool CloseChecked();
    bool IsOpened() const { return lockBuffer != nullptr; }

    /// Null when there is no such key, or nothing behind its ":".
    xstring GetValue(const char* key) const;
    /// Sets or adds. A null `value` is written as "nil". False, with nothing changed, when the file is not
    /// open for updating, for a key of which nothing is left, and for a line feed in either: they would be
    /// another entry.
    bool SetValue(const char* key, const char* value);
    /// False when the file is not open for updating or has no such key.
    bool DeleteValue(const char* key);
    /// The keys in the order of their lines; those that were added come last, in the order of adding. Empty
    /// when no file is open.
    xrchandle<xstringsequence> GetKeys() const;

    /// Reads the file `path`, in its turn as for reading, and tells `handler` in the order of the lines what
    /// is odd about them; of one line it may be several things. The file is free again by then. False when it
    /// cannot be read; GetLastError() says why.
    static bool Check(const char* path, hmxConfigOddityHandler& handler);
    /// The same, but waits for its turn `limit` seconds at most, as Open does.
    static bool Check(const char* path, hmxConfigOddityHandler& handler, double limit);

    /// The numbers of the processes that have the file `path` open, as far as the host shows them; this one
    /// may be among them.
    static xrchandle<xintsequence> GetHolders(const char* path);

private:
    struct Table;

    bool openWithin(const char* path, OpenMode mode, btkTimeval limit);
    static bool checkWithin(const char* path, hmxConfigOddityHandler& handler, btkTimeval limit);
    bool canChange() const { return lockBuffer != nullptr && mode != ReadOnly; }

    Table* table;
    xstring fileName;
    bool modified = false;
    OpenMode mode = ReadOnly;
    lockFileBuf* lockBuffer = nullptr; // null when no file is open
};

// ---- the text functions under it. A null `s` is taken for the empty text.

/// Removes every `c` from `s`, in place. False when there is none.
QEL_API bool StrPress(char* s, char c);
/// A copy of `s` without blanks and tabs, which the caller frees with `delete[]`; null when there is none.
QEL_API char* StrPress(const char* s);
/// Removes blanks and tabs.
QEL_API void StrPress(xstring& s);

/// Splits `s` at its first `c`; a part with nothing in it is null. False, with both unchanged, when there is
/// none.
QEL_API bool StrSplit(const char* s, char c, xstring& before, xstring& after);
/// One part of it; null when there is none.
QEL_API xstring StrSplitBefore(const char* s, char c);
QEL_API xstring StrSplitAfter(const char* s, char c);
