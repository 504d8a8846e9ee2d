#include "hmxregistry.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include <qel/platform/errortable.h>
#include <qel/platform/registry.h>
#include <qel/platform/registryname.h>
#include <qel/xobject.h>

struct hmxRegistryKey::Record
{
    Record(int counted, hmxRegistry* owner, HKEY key) : count(counted), registry(owner), handle(key) {}

    std::atomic<int> count;
    hmxRegistry* registry;
    HKEY handle;
};

hmxRegistry* hmxRegistry::mSystem = nullptr;
hmxRegistry* hmxRegistry::mUser = nullptr;

namespace {

constexpr char pathSeparator = '\\';
constexpr const char* refusedCharacters = "/.:*?";

long createKey(void* parent, const char* path, void** key)
{
    char className[] = "<UNKNOWN>";
    HKEY opened = nullptr;
    const long error = RegCreateKeyExA(static_cast<HKEY>(parent), path, 0, className, REG_OPTION_NON_VOLATILE,
                                       KEY_ALL_ACCESS, nullptr, &opened, nullptr);
    *key = opened;
    return error;
}

long openKey(void* parent, const char* path, void** key)
{
    HKEY opened = nullptr;
    const long error = RegOpenKeyExA(static_cast<HKEY>(parent), path, 0, KEY_ALL_ACCESS, &opened);
    *key = opened;
    return error;
}

/// Whether a platform call succeeded; otherwise sets the last error to its error.
bool done(long error)
{
    if (error != ERROR_SUCCESS)
        SetLastError(static_cast<DWORD>(error));
    return error == ERROR_SUCCESS;
}

/// The names returned by `enumerate`, a platform call with an index, a buffer and its size.
template<class Enumerate>
xrchandle<xstringsequence> listed(Enumerate enumerate)
{
    constexpr std::size_t ordinarySize = 256;
    xrchandle<xstringsequence> names(xstringsequence::create());
    std::string name(ordinarySize, '\0');
    for (DWORD index = 0;;) {
        auto size = static_cast<DWORD>(name.size());
        const long error = enumerate(index, name.data(), &size);
        if (error == ERROR_MORE_DATA) {
            name.resize(size + std::size_t{1});
            continue;
        }
        if (error != ERROR_SUCCESS)
            return error == ERROR_NO_MORE_ITEMS || done(error) ? names : xrchandle<xstringsequence>();
        names->append(name.c_str());
        ++index;
    }
}

} // namespace

// ---- keys

hmxRegistryKey::hmxRegistryKey(const hmxRegistryKey& other) : record(other.record)
{
    if (record != nullptr)
        ++record->count;
}

hmxRegistryKey& hmxRegistryKey::operator=(const hmxRegistryKey& other)
{
    hmxRegistryKey copy(other); // before closing: it may be this one
    std::swap(record, copy.record);
    return *this;
}

hmxRegistryKey::~hmxRegistryKey()
{
    Close();
}

bool hmxRegistryKey::Close()
{
    Record* const released = std::exchange(record, nullptr);
    if (released == nullptr || --released->count > 0)
        return true;
    const std::unique_ptr<Record> last(released);
    return done(RegCloseKey(last->handle));
}

bool hmxRegistryKey::become(Opener opener, const hmxRegistryKey& parent, const char* path)
{
    if (!parent.IsKeyValid(path))
        return false;
    // The parent is not counted: it may be a root, which all threads share. It may also be this key, which is
    // therefore closed last.
    auto made = std::make_unique<Record>(1, parent.record->registry, nullptr);
    void* opened = nullptr;
    const long error = opener(parent.record->handle, path, &opened);
    Close();
    if (!done(error))
        return false;
    made->handle = static_cast<HKEY>(opened);
    record = made.release();
    return true;
}

bool hmxRegistryKey::Create(hmxRegistryKey& parent, const char* path)
{
    return become(&createKey, parent, path);
}

bool hmxRegistryKey::Open(hmxRegistryKey& parent, const char* path)
{
    return become(&openKey, parent, path);
}

bool hmxRegistryKey::DeleteSubkey(const char* name)
{
    return IsNameValid(name) && done(RegDeleteKeyA(record->handle, name));
}

bool hmxRegistryKey::SetValue(const char* name, const char* value)
{
    if (!IsNameValid(name))
        return false;
    const std::string text = qelIsObject(value) ? value : name;
    if (text.size() >= 0xFFFFFFFF)
        return done(ERROR_INVALID_PARAMETER);
    return done(RegSetValueExA(record->handle, name, 0, REG_SZ,
                               reinterpret_cast<const unsigned char*>(text.c_str()),
                               static_cast<DWORD>(text.size() + 1)));
}

xstring hmxRegistryKey::GetValue(const char* name) const
{
    if (!IsNameValid(name))
        return {};
    constexpr std::size_t ordinarySize = 256;
    std::string text(ordinarySize, '\0');
    auto size = static_cast<DWORD>(text.size());
    DWORD type = 0;
    long error;
    while ((error = RegQueryValueExA(record->handle, name, nullptr, &type,
                                     reinterpret_cast<unsigned char*>(text.data()), &size)) ==
           ERROR_MORE_DATA)
        text.assign(size, '\0');
    if (error == ERROR_SUCCESS && type != REG_SZ)
        error = ERROR_UNSUPPORTED_TYPE;
    if (!done(error))
        return {};
    text.resize(size);
    return text.c_str();
}

bool hmxRegistryKey::DeleteValue(const char* name)
{
    return IsNameValid(name) && done(RegDeleteValueA(record->handle, name));
}

xrchandle<xstringsequence> hmxRegistryKey::ListSubkeys() const
{
    return listed([this](DWORD index, char* name, DWORD* size) {
        return record == nullptr
                   ? static_cast<long>(ERROR_INVALID_HANDLE)
                   : RegEnumKeyExA(record->handle, index, name, size, nullptr, nullptr, nullptr, nullptr);
    });
}

xrchandle<xstringsequence> hmxRegistryKey::ListValues() const
{
    return listed([this](DWORD index, char* name, DWORD* size) {
        return record == nullptr
                   ? static_cast<long>(ERROR_INVALID_HANDLE)
                   : RegEnumValueA(record->handle, index, name, size, nullptr, nullptr, nullptr, nullptr);
    });
}

bool hmxRegistryKey::IsKeyValid(const char* path) const
{
    if (record == nullptr)
        return done(ERROR_INVALID_HANDLE);
    return (qelIsObject(path) && std::strpbrk(path, record->registry->invalidChars) == nullptr) ||
           done(ERROR_INVALID_NAME);
}

bool hmxRegistryKey::IsNameValid(const char* name) const
{
    return IsKeyValid(name) &&
           (std::strchr(name, record->registry->separator) == nullptr || done(ERROR_INVALID_NAME));
}

// ---- roots

hmxRegistry::hmxRegistry(Type type, char keySeparator, const char* invalidCharacters)
    : separator(keySeparator), invalidChars(invalidCharacters)
{
    if (type == typeSystem || type == typeUser)
        root.record =
            new hmxRegistryKey::Record(1, this, type == typeSystem ? HKEY_CLASSES_ROOT : HKEY_CURRENT_USER);
}

hmxRegistry& hmxRegistry::System()
{
    static hmxRegistry& made = *(mSystem = new hmxRegistry(typeSystem, pathSeparator, refusedCharacters));
    return made;
}

hmxRegistry& hmxRegistry::User()
{
    static hmxRegistry& made = *(mUser = new hmxRegistry(typeUser, pathSeparator, refusedCharacters));
    return made;
}

bool hmxRegistry::Open()
{
    ++std::atomic_ref(openCount);
    return true;
}

void hmxRegistry::Close()
{
    const std::atomic_ref count(openCount);
    for (int open = count; open > 0 && !count.compare_exchange_weak(open, open - 1);)
        ;
}

std::size_t hmxRegistry::ParseFile(std::string_view bytes, unsigned& type, xstring& name)
{
    DWORD number = 0;
    std::string_view written;
    const std::size_t offset = platParseValue(bytes, number, written);
    if (offset > 0) {
        type = number;
        name = platNameAsWritten(written).c_str();
    }
    return offset;
}

xstring hmxRegistry::getFolder() const
{
    const std::string folder = root.IsOpened() ? platRegistryFolder(root.record->handle) : std::string();
    return folder.empty() ? xstring(nullptr) : xstring(folder.c_str());
}
