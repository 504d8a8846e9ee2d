#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <optional>
#include <utility>

#include <qel/base/btkbyteorder.h>

#include "monfile_p.h"
#include "monlock_p.h"
#include "qeltable.h"

constinit qelClass monParam::rtti = {
    .name = "monlib::Param",
    .attrs = {QEL_ATTR(Name)},
};

constinit qelClass monBoolParam::rtti = {
    .name = "monlib::BoolParam",
    .parents = {QEL_PARENT(monParam)},
    .attrs = {QEL_ATTR(Value)},
};

constinit qelClass monIntParam::rtti = {
    .name = "monlib::IntParam",
    .parents = {QEL_PARENT(monParam)},
    .attrs = {QEL_ATTR(Value)},
};

constinit qelClass monRealParam::rtti = {
    .name = "monlib::RealParam",
    .parents = {QEL_PARENT(monParam)},
    .attrs = {QEL_ATTR(Value)},
};

constinit qelClass monStringParam::rtti = {
    .name = "monlib::StringParam",
    .parents = {QEL_PARENT(monParam)},
    .attrs = {QEL_ATTR(Value), QEL_ATTR(Size)},
};

constinit qelClass monParamDict::rtti = {
    .name = "monlib::ParamDict",
    .elements = qelDictionaryOf<self>,
    .create = &qelCreateOf<self>,
};

// ---- values

namespace {

int offsetOf(std::fpos<int> position)
{
    return static_cast<int>(std::streamoff(position));
}

// The word that stores a number in a file, before conversion to network byte order.
template<class Value>
using WordOf = std::conditional_t<sizeof(Value) == 1, std::uint32_t, btkWord<Value>>;

template<class Value>
WordOf<Value> encode(Value value)
{
    if constexpr (sizeof(Value) == 1)
        return btkNetworkOrder(std::uint32_t{value});
    else
        return btkNetworkOrder(std::bit_cast<WordOf<Value>>(value));
}

template<class Value>
Value decode(WordOf<Value> word)
{
    if constexpr (sizeof(Value) == 1)
        return static_cast<Value>(btkNetworkOrder(word) & 0xFF);
    else
        return std::bit_cast<Value>(btkNetworkOrder(word));
}

// Whether two readings are equal; a NaN equals itself.
template<class Value>
bool isSame(const Value& a, const Value& b)
{
    if constexpr (std::is_same_v<Value, double>)
        return encode(a) == encode(b);
    else
        return a == b;
}

// Whether a reading is invalid.
template<class Value>
bool isImpossible(const Value& value)
{
    if constexpr (std::is_same_v<Value, xstring>)
        return value == nullptr;
    else
        return false;
}

} // namespace

// Reads the value of `size` bytes at `start` by `load`, under its lock.
template<class Load>
auto monFile::Inside::LoadLocked(int start, int size, Load load)
{
    constexpr int attempts = 10;
    decltype(load()) value{};
    bool wasQuiet = false;
    for (int left = attempts;; --left) {
        const bool waitedInVain = !isPatient;
        const monReadLock lock(stream->fileBuf->GetHandle(), start, size, isPatient);
        const auto before = std::exchange(value, load());
        bool isGood = lock.IsSure();
        if (!isGood) {
            const bool isQuiet = lock.IsQuiet();
            isGood = isQuiet && wasQuiet && isSame(value, before);
            wasQuiet = isQuiet;
        }
        if ((isGood && !isImpossible(value)) || (waitedInVain && !isPatient) || left == 1)
            return value;
    }
}

// Numbers are read and written directly in place: one system call each.

// The position of the value in the file.
int monFile::Inside::PositionOf(monParam& parameter)
{
    if (parameter.isLost)
        UpdateCache();
    if (parameter.isLost)
        qelXNativeException::Throw("monFile: No such parameter any more");
    return offsetOf(parameter.position);
}

template<class Value>
Value monFile::Inside::Get(monParam& parameter)
{
    using Word = WordOf<Value>;
    Prepare();
    const int start = PositionOf(parameter);
    SizeUnlessGone();
    const auto load = [&] {
        Word word;
        const std::ptrdiff_t count = btkReadAt(stream->fileBuf->GetHandle(), &word, sizeof word, start);
        if (count != sizeof word)
            Attempt([&] { stream->ThrowState(count < 0 ? ioFileStream::stateBad : ioFileStream::stateEof); });
        return decode<Value>(word);
    };
    return monIsSplit(start, sizeof(Word)) ? LoadLocked(start, sizeof(Word), load) : load();
}

template<class Value>
Value monFile::Inside::Set(monParam& parameter, Value value)
{
    const auto word = encode(value);
    PrepareToWrite();
    const int start = PositionOf(parameter);
    xfilebuf& bytes = *stream->fileBuf;
    std::optional<monWriteLock> lock;
    if (monIsSplit(start, sizeof word))
        lock.emplace(bytes.GetHandle(), start, static_cast<int>(sizeof word), isWatched);
    const auto notice = lock && !lock->IsWatched() ? btkPartWriter::Quietly : btkPartWriter::AtOnce;
    if (bytes.Rewrite(&word, sizeof word, start, notice) != sizeof word)
        Attempt([&] { stream->ThrowState(ioFileStream::stateBad); });
    return value;
}

xstring monFile::Inside::GetText(int start, int capacity)
{
    constexpr int readAtOnce = 4096;
    return LoadLocked(start, monWordSize + capacity, [&] {
        Seek(start);
        stream->fileBuf->ExpectRead(static_cast<std::size_t>(std::min(monWordSize + capacity, readAtOnce)));
        return LoadStringA(capacity);
    });
}

void monFile::Inside::SetText(int start, int capacity, const char* text)
{
    const btkHandle handle = stream->fileBuf->GetHandle();
    monLetReadersGo(handle, start, monWordSize + capacity, isPolite);
    const monWriteLock lock(handle, start, monWordSize + capacity);
    Attempt([&] {
        Seek(start);
        StoreString(text);
    });
}

monParam::monParam(monFile& owner, const char* called, std::fpos<int> at)
    : name(called), file(&owner), position(at)
{
    monFile::Inside::Of(owner).params->set(called, this);
}

monParam::~monParam() = default;

xstring monParam::getName()
{
    return name;
}

long long monParam::getPosition() const
{
    return offsetOf(position);
}

monBoolParam::monBoolParam(monFile& owner, xstring called, std::fpos<int> at)
    : monParam(owner, called.CastToCString(), at)
{
}

unsigned char monBoolParam::getValue()
{
    return monFile::Inside::Of(*file).Get<unsigned char>(*this);
}

unsigned char monBoolParam::setValue(unsigned char v)
{
    return monFile::Inside::Of(*file).Set(*this, v);
}

monIntParam::monIntParam(monFile& owner, xstring called, std::fpos<int> at)
    : monParam(owner, called.CastToCString(), at)
{
}

int monIntParam::getValue()
{
    return monFile::Inside::Of(*file).Get<int>(*this);
}

int monIntParam::setValue(int v)
{
    return monFile::Inside::Of(*file).Set(*this, v);
}

monRealParam::monRealParam(monFile& owner, xstring called, std::fpos<int> at)
    : monParam(owner, called.CastToCString(), at)
{
}

double monRealParam::getValue()
{
    return monFile::Inside::Of(*file).Get<double>(*this);
}

double monRealParam::setValue(double v)
{
    return monFile::Inside::Of(*file).Set(*this, v);
}

monStringParam::monStringParam(monFile& owner, xstring called, std::fpos<int> at, int size)
    : monParam(owner, called.CastToCString(), at), capacity(size)
{
}

xstring monStringParam::getValue()
{
    auto& inside = monFile::Inside::Of(*file);
    inside.Prepare();
    const int start = inside.PositionOf(*this);
    inside.SizeUnlessGone();
    xstring value = inside.GetText(start, capacity);
    if (value == nullptr)
        monThrowWeird();
    return value;
}

xstring monStringParam::setValue(const char* v)
{
    auto& inside = monFile::Inside::Of(*file);
    inside.PrepareToWrite();
    const int start = inside.PositionOf(*this);
    if (qelIsObject(v) && std::strlen(v) > static_cast<std::size_t>(capacity))
        qelXNativeException::Throw("monStringParam::setValue: Value too long");
    inside.SetText(start, capacity, v);
    return v;
}

int monStringParam::getSize()
{
    return capacity;
}

monParamDict* monParamDict::create()
{
    try {
        return new (pDefMemMgr) monParamDict;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
