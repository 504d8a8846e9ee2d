#pragma once

#include <concepts>

#include <qel/hmxregistry.h>
#include <qel/xobject.h>

/// A key path or name that breaks the rules (hmxRegistryKey). Not counted: the catcher frees it with xdelete.
class QEL_API regXNameInvalid : public virtual xthrowable
{
    QEL_OBJECT(regXNameInvalid); // "reglib::XNameInvalid"
    QEL_NOT_COUNTED;

public:
    explicit regXNameInvalid(const char* name);
    [[noreturn]] static void Throw(const char* name);

    virtual xstring getName();

private:
    xstring Name;
};

/// An operation on a closed key. Not counted.
class QEL_API regXKeyClosed : public virtual xthrowable
{
    QEL_OBJECT(regXKeyClosed); // "reglib::XKeyClosed"
    QEL_NOT_COUNTED;

public:
    [[noreturn]] static void Throw();
};

/// A value could not be set. Not counted.
class QEL_API regXAccess : public virtual xthrowable
{
    QEL_OBJECT(regXAccess); // "reglib::XAccess"
    QEL_NOT_COUNTED;

public:
    [[noreturn]] static void Throw();
};

/// An open registry key with typed values, which are stored as texts. Not counted: the caller that receives
/// one frees it with xdelete. One object is used by one thread at a time; objects for one key may be used by
/// several threads. A change is on the disk when the call returns, except in a batch (regBatch). Every
/// operation but Close throws regXKeyClosed when the key is closed, then regXNameInvalid for a path or name
/// that breaks the rules.
///
///     const auto user = qel::own(regRegistry::User());
///     if (const auto key = qel::own(user->CreateSubkey("Software\\Example"))) {
///         key->SetValue("Interval", 30);
///         std::cout << key->GetIntValue("Interval") << '\n'; // xnullint: no such value, or no number
///     }
class QEL_API regKey : public virtual xobject
{
    QEL_OBJECT(regKey); // "reglib::Key"
    QEL_NOT_COUNTED;

public:
    explicit regKey(const hmxRegistryKey& opened) : key(opened) {}

    /// The key at `path` below this one, which CreateSubkey makes if it is missing. Null on failure. The
    /// caller owns the new object.
    virtual regKey* CreateSubkey(const char* path);
    virtual regKey* OpenSubkey(const char* path);
    /// 1 when it worked. A subkey that has subkeys is not deleted.
    virtual unsigned char DeleteSubkey(const char* name);
    virtual void Close();

    // ---- setting a value: a real with six significant digits, a bool as "true" or "false"
    /// @throws regXAccess  the value cannot be set
    virtual void SetValue(const char* name, double value);
    virtual void SetValue(const char* name, unsigned char value);
    virtual void SetValue(const char* name, int value);
    /// Null `value`: the name itself.
    virtual void SetValue(const char* name, const char* value);
    template<std::same_as<bool> B>
    void SetValue(const char* name, B value)
    {
        SetValue(name, static_cast<unsigned char>(value));
    }

    // ---- reading a value: null when it is missing or is not of that kind
    virtual xstring GetStringValue(const char* name);
    virtual int GetIntValue(const char* name);
    virtual double GetRealValue(const char* name);
    virtual unsigned char GetBoolValue(const char* name);

    /// 1 when it worked.
    virtual unsigned char DeleteValue(const char* name);

    /// The names of the direct subkeys, and of the values, as they were written and in the order of the names
    /// without case.
    /// @throws regXAccess  they cannot be listed
    xrchandle<xstringsequence> ListSubkeys();
    xrchandle<xstringsequence> ListValues();

private:
    void checkOpen() const;
    void checkName(const char* name) const;
    void checkPath(const char* path) const;

    hmxRegistryKey key;
};

/// One of the two roots as a key. Not counted. It stays open.
///
///     const auto system = qel::own(regRegistry::System());
///     const auto names = system->ListSubkeys();
///     for (const xstring name : *names)
///         std::cout << name << '\n';
class QEL_API regRegistry : public virtual regKey
{
    QEL_OBJECT(regRegistry); // "reglib::Registry"

public:
    explicit regRegistry(hmxRegistry& registry);

    /// A new object, which the caller owns.
    static regRegistry* System();
    static regRegistry* User();

    /// Ends one opening; the key stays usable.
    void Close() override;
    /// Counts an opening. Returns 1.
    virtual unsigned char Open();

private:
    hmxRegistry& root;
};

/// Writes the thread's registry changes to the disk in one batch: thousands of values take no longer than a
/// few. Every change takes effect at once and is visible to all processes; until it is committed, a loss of
/// power (not a killed process) may undo it, or leave a value that cannot be read. Belongs to the thread that
/// made it; batches may be nested.
///
///     const auto user = qel::own(regRegistry::User());
///     regBatch batch;
///     for (int i = 0; i < 1000; ++i)
///         user->SetValue(xstring::Printf("Value%d", i).CastToCString(), i);
///     if (!batch.Commit())
///         std::cerr << "error " << GetLastError() << '\n';
class QEL_API regBatch
{
public:
    regBatch();
    regBatch(const regBatch&) = delete;
    regBatch& operator=(const regBatch&) = delete;
    /// Commits the remaining changes; a failure is not reported.
    ~regBatch();

    /// Writes the changes made so far to the disk. False when that failed; GetLastError() gives the reason.
    bool Commit();
};
