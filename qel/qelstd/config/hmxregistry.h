#pragma once

#include <cstddef>
#include <string_view>

#include <qel/xsequence.h>
#include <qel/xstring.h>

class hmxRegistry;

/// A reference-counted handle to a registry key, open or closed. Copies share the key: it is closed with the
/// last one. No call throws. A call that fails, and every call but Close on a closed key, returns false or
/// the null string, and GetLastError() gives the reason. One object is used by one thread at a time; copies
/// of it, and keys below one parent, may be used by several threads.
///
/// A key path holds none of the characters "/.:*?"; "\" in it leads to keys below. A name, of a value or of a
/// direct subkey, holds no "\" either. Comparison of names ignores ASCII case.
///
///     hmxRegistryKey key;
///     if (key.Create(hmxRegistry::User().root, "Software\\Example"))
///         key.SetValue("Interval", "30");
class QEL_API hmxRegistryKey
{
public:
    hmxRegistryKey() = default;
    hmxRegistryKey(const hmxRegistryKey& other);
    hmxRegistryKey& operator=(const hmxRegistryKey& other);
    ~hmxRegistryKey();

    /// Closes this key and becomes the key at `path` below `parent`, which Create makes if it is missing. An
    /// invalid path changes nothing. `parent` may be this key; other threads may open keys below it at the
    /// same time.
    bool Create(hmxRegistryKey& parent, const char* path);
    bool Open(hmxRegistryKey& parent, const char* path);
    /// True also for a key that is closed already.
    bool Close();
    bool IsOpened() const { return record != nullptr; }

    /// Deletes a direct subkey with its values. False when it has subkeys.
    bool DeleteSubkey(const char* name);

    /// Null `value`: the name itself is the value.
    bool SetValue(const char* name, const char* value);
    /// Null when the value is missing or not a string.
    xstring GetValue(const char* name) const;
    bool DeleteValue(const char* name);

    /// The names of the direct subkeys, and of the values, as they were written and in the order of the names
    /// without case. A null handle when they cannot be listed.
    xrchandle<xstringsequence> ListSubkeys() const;
    xrchandle<xstringsequence> ListValues() const;

    /// Whether a path of a key, or a name of a value, has no forbidden character.
    bool IsKeyValid(const char* path) const;
    bool IsNameValid(const char* name) const;

private:
    friend class hmxRegistry;
    struct Record;

    /// A function that opens or creates a key below another one.
    using Opener = long (*)(void* parent, const char* path, void** key);
    bool become(Opener opener, const hmxRegistryKey& parent, const char* path);

    Record* record = nullptr; // null: closed
};

/// One of the two roots of the registry.
///
///     std::cout << hmxRegistry::User().getFolder() << '\n';
class QEL_API hmxRegistry
{
public:
    /// Which of the two: the calling user's, or that of the whole machine.
    enum Type : int { typeUser = 0, typeSystem = 1 };

    /// Another type leaves `root` closed. `invalidCharacters` is kept as a pointer.
    hmxRegistry(Type type, char keySeparator, const char* invalidCharacters);
    hmxRegistry(const hmxRegistry&) = delete;
    hmxRegistry& operator=(const hmxRegistry&) = delete;

    /// The roots of the process, made on the first call and never freed. Safe to call from any thread.
    static hmxRegistry& System();
    static hmxRegistry& User();

    /// Counts the openings; the count has no other effect. Open returns true. Safe to call from any thread.
    bool Open();
    void Close();

    /// The folder that currently stores this root, as a path of the operating system; null when the
    /// registry's location is unknown.
    xstring getFolder() const;

    /// Parses the bytes of the file in which a registry keeps a value: its type, where 1 is text, and its name.
    /// Returns the offset of the value, in bytes; 0 when they are not the bytes of such a file.
    static std::size_t ParseFile(std::string_view bytes, unsigned& type, xstring& name);

    /// The key of the root; closed when it could not be opened.
    hmxRegistryKey root;

private:
    friend class hmxRegistryKey;

    static hmxRegistry* mSystem;
    static hmxRegistry* mUser;

    int openCount = 0;
    char separator;
    const char* invalidChars;
};
