#pragma once

#include <qel/fspathargument.h>
#include <qel/qelduration.h>
#include <qel/xsequence.h>
#include <qel/xstring.h>

class btkTimeval;
class lockFileBuf;

/// An oddity of a line in a configuration file: a part that is not kept, or may be a mistake.
enum hmxConfigOddity {
    // writing the file back drops the line:
    hmxNoColon,    // it has no ":"
    hmxNoKey,      // only blanks stand before its first ":"
    hmxOverridden, // a later line has the same key
    // the line is written otherwise:
    hmxBlanksInKey, // without them
    hmxNoValue,     // with "nil" as its value
    hmxNoLineEnd,   // with a line feed: it is the last line and has none
    // the line is kept:
    hmxCarriageReturn, // its value ends in one, as on other operating systems
    hmxZeroByte        // GetValue returns the part before it
};

/// Receives the findings of hmxConfigFile::Check.
///
///     class Print : public hmxConfigOddityHandler
///     {
///         void Invoke(hmxConfigOddity, long long line, const char* text, long long) override
///         {
///             std::cout << line << ": " << text << '\n';
///         }
///     };
///
///     Print print;
///     hmxConfigFile::Check("service.conf", print);
class QEL_API hmxConfigOddityHandler
{
public:
    virtual ~hmxConfigOddityHandler() = default;
    /// Lines count from 1. `text` is the line up to a zero byte, valid during the call. `later`: the last
    /// line with the same key, for hmxOverridden; else 0.
    virtual void Invoke(hmxConfigOddity oddity, long long line, const char* text, long long later) = 0;
};

/// A small text file of lines `key:value`, held in memory, sorted by key, while it is open. Blanks and tabs
/// are removed from keys at any position; a value is everything behind the first ":". Keys are
/// case-sensitive. Reading skips lines without ":" or without a key; of several lines with one key the last
/// counts.
///
/// An open file is locked: for reading together with other readers, for updating alone. Open waits for its
/// turn; readers that arrive while an update waits are admitted after it, so a thread must not hold a file
/// that another thread needs in order to proceed. An opening for which a thread would wait for itself fails:
/// GetLastError() is ERROR_SHARING_VIOLATION when it has the file open and one of the two openings is for
/// updating. Used by one thread at a time.
///
/// Opening and closing cost time proportional to the size of the file, a value the logarithm of their number.
///
///     hmxConfigFile file;
///     if (file.Open("service.conf", hmxConfigFile::ReadWrite, 5s)) {
///         const xstring before = file.GetValue("interval"); // null: no such key
///         file.SetValue("interval", "30");
///         if (!file.CloseChecked())
///             std::cerr << "service.conf: error " << GetLastError() << '\n';
///     }
class QEL_API hmxConfigFile
{
public:
    /// Whether the file is opened for changes: then other writers are locked out.
    enum OpenMode { ReadOnly, ReadWrite };

    hmxConfigFile();
    hmxConfigFile(const hmxConfigFile&) = delete;
    hmxConfigFile& operator=(const hmxConfigFile&) = delete;
    /// Closes.
    ~hmxConfigFile();

    /// Closes the file that is open, then opens `path` and reads it; ReadWrite creates a missing file. False
    /// when that fails: no file is open then, and GetLastError() gives the reason.
    bool Open(const char* path, OpenMode mode);
    /// The same, but waits for its turn `limit` seconds at most; 0 tries once. GetLastError() is
    /// ERROR_LOCK_VIOLATION when the limit has passed.
    bool Open(const char* path, OpenMode mode, double limit);
    template<qelDuration D>
    bool Open(const char* path, OpenMode openMode, const D& limit)
    {
        return Open(path, openMode, qelSeconds(limit));
    }
    template<fsPathObject P, class... Limit>
    bool Open(const P& path, OpenMode openMode, Limit... limit)
    {
        return Open(fsPathArgument(path), openMode, limit...);
    }
    /// If anything was changed, writes the file back: one line for each entry in ascending order of the keys,
    /// and nothing else. The file then holds the old or the new content, even after a crash; when it cannot
    /// be written, the old content stays, and no failure is reported. A file that has several hard links, is
    /// a mount point, or is in a folder that this process may not change is overwritten in place: a full disk
    /// changes nothing, but a kill midway can leave a mixture; this class reads it as the new content if it
    /// could store that beside the file; docs/config.md has the details. Does nothing when no file is open.
    void Close();
    /// The same, and reports failures: false when a change could not be written. GetLastError() gives the
    /// reason: ERROR_FILE_INVALID, with nothing written, when other processes have replaced or changed the file since
    /// Open without the lock. A file deleted since Open is created again.
    bool CloseChecked();
    bool IsOpened() const { return lockBuffer != nullptr; }

    /// Null for a missing key, or one with nothing behind its ":".
    xstring GetValue(const char* key) const;
    template<qelTextObject K>
    xstring GetValue(const K& key) const
    {
        return GetValue(qelTextArgument(key));
    }
    /// Sets or adds. A null `value` is written as "nil". False, with nothing changed, when the file is not
    /// open for updating, when the key is empty or blanks only, and for a line feed in either, which would
    /// start another entry.
    bool SetValue(const char* key, const char* value);
    template<qelText K, qelText V>
    requires(qelTextObject<K> || qelTextObject<V>) bool SetValue(const K& key, const V& value)
    {
        return SetValue(qelTextArgument(key), qelTextArgument(value));
    }
    /// False when the file is not open for updating or has no such key.
    bool DeleteValue(const char* key);
    template<qelTextObject K>
    bool DeleteValue(const K& key)
    {
        return DeleteValue(qelTextArgument(key));
    }
    /// The keys in the order of their lines; added keys come last, in the order of adding. Empty when no file
    /// is open. A new sequence; costs time proportional to the number of keys and its logarithm.
    xrchandle<xstringsequence> GetKeys() const;
    /// The byte of the file, as it was read, at which the line of the key begins, from 0; -1 for a missing key
    /// and for one that was added.
    long long GetOffset(const char* key) const;
    template<qelTextObject K>
    long long GetOffset(const K& key) const
    {
        return GetOffset(qelTextArgument(key));
    }

    /// Reads the file `path` under the lock for reading, unlocks it, and calls `handler` for each oddity in
    /// the order of the lines; one line may have several. False when it cannot be read; GetLastError() gives
    /// the reason.
    static bool Check(const char* path, hmxConfigOddityHandler& handler);
    /// The same, but waits for its turn `limit` seconds at most, as Open does.
    static bool Check(const char* path, hmxConfigOddityHandler& handler, double limit);
    template<qelDuration D>
    static bool Check(const char* path, hmxConfigOddityHandler& handler, const D& limit)
    {
        return Check(path, handler, qelSeconds(limit));
    }
    template<fsPathObject P, class... Limit>
    static bool Check(const P& path, hmxConfigOddityHandler& handler, Limit... limit)
    {
        return Check(fsPathArgument(path), handler, limit...);
    }

    /// The numbers of the processes that have the file `path` open, as far as the operating system shows
    /// them; this one may be among them.
    static xrchandle<xintsequence> GetHolders(const char* path);
    template<fsPathObject P>
    static xrchandle<xintsequence> GetHolders(const P& path)
    {
        return GetHolders(fsPathArgument(path));
    }

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

// ---- the text functions under it. A null `s` means the empty text.

/// Removes every `c` from `s`, in place. False when there is none.
QEL_API bool StrPress(char* s, char c);
/// A copy of `s` without blanks and tabs, which the caller frees with `delete[]`; null when there is none.
QEL_API char* StrPress(const char* s);
/// Removes blanks and tabs.
QEL_API void StrPress(xstring& s);

/// Splits `s` at its first `c`; a part with nothing in it is null. False, with both unchanged, when there is
/// none.
QEL_API bool StrSplit(const char* s, char c, xstring& before, xstring& after);
/// One part of the split; null when there is none.
QEL_API xstring StrSplitBefore(const char* s, char c);
QEL_API xstring StrSplitAfter(const char* s, char c);
