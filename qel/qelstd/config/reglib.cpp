#include "reglib.h"

#include <charconv>
#include <string>

#include <qel/platform/errortable.h>
#include <qel/platform/registry.h>

#include "qelexception.h"
#include "qeltable.h"

constinit qelClass regKey::rtti = {.name = "reglib::Key"};

constinit qelClass regRegistry::rtti = {
    .name = "reglib::Registry",
    .parents = {QEL_PARENT(regKey)},
};

constinit qelClass regXNameInvalid::rtti = {
    .name = "reglib::XNameInvalid",
    .attrs = {QEL_ATTR(Name)},
};

constinit qelClass regXKeyClosed::rtti = {.name = "reglib::XKeyClosed"};

constinit qelClass regXAccess::rtti = {.name = "reglib::XAccess"};

namespace {

constexpr const char* trueText = "true";
constexpr const char* falseText = "false";

/// A created or opened key as a new object; null on failure.
regKey* newKey(bool opened, const hmxRegistryKey& key)
{
    return opened ? new (pDefMemMgr) regKey(key) : nullptr;
}

/// The listed names; throws when listing failed.
xrchandle<xstringsequence> known(xrchandle<xstringsequence> names)
{
    if (!names)
        regXAccess::Throw();
    return names;
}

/// The text of a number, as a standard stream writes it by default.
template<class... Form>
std::string textOf(auto number, Form... form)
{
    char text[64];
    return {text, std::to_chars(text, text + sizeof text, number, form...).ptr};
}

} // namespace

// ---- exceptions

regXNameInvalid::regXNameInvalid(const char* name) : Name(name)
{
}

void regXNameInvalid::Throw(const char* name)
{
    qelThrowNew<regXNameInvalid>(name);
}

xstring regXNameInvalid::getName()
{
    return Name;
}

void regXKeyClosed::Throw()
{
    qelThrowNew<regXKeyClosed>();
}

void regXAccess::Throw()
{
    qelThrowNew<regXAccess>();
}

// ---- keys

void regKey::checkOpen() const
{
    if (!key.IsOpened())
        regXKeyClosed::Throw();
}

void regKey::checkName(const char* name) const
{
    checkOpen();
    if (!key.IsNameValid(name))
        regXNameInvalid::Throw(name);
}

void regKey::checkPath(const char* path) const
{
    checkOpen();
    if (!key.IsKeyValid(path))
        regXNameInvalid::Throw(path);
}

regKey* regKey::CreateSubkey(const char* path)
{
    checkPath(path);
    hmxRegistryKey sub;
    return newKey(sub.Create(key, path), sub);
}

regKey* regKey::OpenSubkey(const char* path)
{
    checkPath(path);
    hmxRegistryKey sub;
    return newKey(sub.Open(key, path), sub);
}

unsigned char regKey::DeleteSubkey(const char* name)
{
    checkName(name);
    return key.DeleteSubkey(name);
}

void regKey::Close()
{
    key.Close();
}

void regKey::SetValue(const char* name, double value)
{
    constexpr int digits = 6;
    SetValue(name, textOf(value, std::chars_format::general, digits).c_str());
}

void regKey::SetValue(const char* name, unsigned char value)
{
    SetValue(name, value != 0 ? trueText : falseText);
}

void regKey::SetValue(const char* name, int value)
{
    SetValue(name, textOf(value).c_str());
}

void regKey::SetValue(const char* name, const char* value)
{
    checkName(name);
    if (!key.SetValue(name, value))
        regXAccess::Throw();
}

xstring regKey::GetStringValue(const char* name)
{
    checkName(name);
    return key.GetValue(name);
}

int regKey::GetIntValue(const char* name)
{
    int value;
    return GetStringValue(name).ToInt(&value) ? value : xnullint;
}

double regKey::GetRealValue(const char* name)
{
    double value;
    return GetStringValue(name).ToDouble(&value) ? value : xnullreal;
}

unsigned char regKey::GetBoolValue(const char* name)
{
    const xstring text = GetStringValue(name);
    return text == trueText ? 1 : text == falseText ? 0 : xnullbool;
}

unsigned char regKey::DeleteValue(const char* name)
{
    checkName(name);
    return key.DeleteValue(name);
}

xrchandle<xstringsequence> regKey::ListSubkeys()
{
    checkOpen();
    return known(key.ListSubkeys());
}

xrchandle<xstringsequence> regKey::ListValues()
{
    checkOpen();
    return known(key.ListValues());
}

// ---- roots

regRegistry::regRegistry(hmxRegistry& registry) : regKey(registry.root), root(registry)
{
}

regRegistry* regRegistry::System()
{
    return new (pDefMemMgr) regRegistry(hmxRegistry::System());
}

regRegistry* regRegistry::User()
{
    return new (pDefMemMgr) regRegistry(hmxRegistry::User());
}

void regRegistry::Close()
{
    root.Close();
}

unsigned char regRegistry::Open()
{
    return root.Open();
}

// ---- batches

regBatch::regBatch()
{
    platBeginBatch();
}

regBatch::~regBatch()
{
    platEndBatch();
}

bool regBatch::Commit()
{
    const long error = platCommitBatch();
    if (error != ERROR_SUCCESS)
        SetLastError(static_cast<DWORD>(error));
    return error == ERROR_SUCCESS;
}
