#include "xmonlib.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>

#include "monlock_p.h"
#include "qelexception.h"
#include "qeltable.h"
#include "xiolib.h"
#include <qel/base/xfilebuf.h>

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

constinit qelClass monFile::rtti = {
    .name = "monlib::File",
    .attrs = {QEL_ATTR(Title), QEL_ATTR(Params)},
};

// ---- the format

namespace {

// The type codes of the records.
enum RecordType : int { boolRecord, intRecord, realRecord, stringRecord };

constexpr int headSize = 12; // type, reserved, length of the name
constexpr int wordSize = 4;
constexpr int realSize = 8;
constexpr int longestName = 1023;

// The size of a value of a kind other than string, and of the length of a string.
constexpr int FixedSize(int type)
{
    return type == realRecord ? realSize : wordSize;
}

int OffsetOf(std::fpos<int> position)
{
    return static_cast<int>(std::streamoff(position));
}

[[noreturn]] void ThrowWeird()
{
    qelXNativeException::Throw("Weird parameter type");
}

[[noreturn]] void ThrowTooLarge()
{
    qelXNativeException::Throw("monFile: File too large");
}

struct Xdelete
{
    void operator()(xobject* p) const { xdelete(p); }
};

} // namespace

template<>
struct monFile::Kind<monBoolParam>
{
    static constexpr int type = boolRecord;
    using Value = unsigned char;
    static constexpr auto store = &monFile::StoreBool;
};

template<>
struct monFile::Kind<monIntParam>
{
    static constexpr int type = intRecord;
    using Value = int;
    static constexpr auto store = &monFile::StoreInt;
};

template<>
struct monFile::Kind<monRealParam>
{
    static constexpr int type = realRecord;
    using Value = double;
    static constexpr auto store = &monFile::StoreReal;
};

template<>
struct monFile::Kind<monStringParam>
{
    static constexpr int type = stringRecord;
};

// ---- values

namespace {

// The word that a number is in a file, before it is put in network order.
template<class Value>
using WordOf = std::conditional_t<std::is_same_v<Value, double>, std::uint64_t, std::uint32_t>;

// To network order, and back.
template<class Word>
Word Ordered(Word word)
{
    if constexpr (std::endian::native == std::endian::big)
        return word;
    else if constexpr (sizeof(Word) == 4)
        return __builtin_bswap32(word);
    else
        return __builtin_bswap64(word);
}

template<class Value>
WordOf<Value> Encode(Value value)
{
    if constexpr (sizeof(Value) == 1)
        return Ordered(std::uint32_t{value});
    else
        return Ordered(std::bit_cast<WordOf<Value>>(value));
}

template<class Value>
Value Decode(WordOf<Value> word)
{
    if constexpr (sizeof(Value) == 1)
        return static_cast<Value>(Ordered(word) & 0xFF);
    else
        return std::bit_cast<Value>(Ordered(word));
}

// Whether two readings found the same; a real that is not a number is the same as itself.
template<class Value>
bool IsSame(const Value& a, const Value& b)
{
    if constexpr (std::is_same_v<Value, double>)
        return Encode(a) == Encode(b);
    else
        return a == b;
}

// Whether a reading made no sense.
template<class Value>
bool IsImpossible(const Value& value)
{
    if constexpr (std::is_same_v<Value, xstring>)
        return value == nullptr;
    else
        return false;
}

} // namespace

// What a failure leaves behind in the stream is forgotten, so that the file can still be used.
template<class Transfer>
void monFile::Attempt(Transfer transfer)
{
    try {
        transfer();
    } catch (...) {
        if (stream->getIsOpen()) {
            stream->fileBuf->DropPending();
            stream->setIsBad(0);
        }
        throw;
    }
}

// Reads the value of `size` bytes at `start` by `load`, under its lock.
template<class Load>
auto monFile::LoadLocked(int start, int size, Load load)
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
            isGood = isQuiet && wasQuiet && IsSame(value, before);
            wasQuiet = isQuiet;
        }
        if ((isGood && !IsImpossible(value)) || (waitedInVain && !isPatient) || left == 1)
            return value;
    }
}

// Numbers go straight to and from their place: one call of the host each.

template<class Param>
auto monFile::Get(std::fpos<int> position)
{
    using Value = typename Kind<Param>::Value;
    using Word = WordOf<Value>;
    const int start = OffsetOf(position);
    stream->CheckOpen();
    const auto load = [&] {
        Word word;
        const std::ptrdiff_t count = btkReadAt(stream->fileBuf->GetHandle(), &word, sizeof word, start);
        if (count != sizeof word)
            Attempt([&] { stream->ThrowState(count < 0 ? ioFileStream::stateBad : ioFileStream::stateEof); });
        return Decode<Value>(word);
    };
    return monIsSplit(start, sizeof(Word)) ? LoadLocked(start, sizeof(Word), load) : load();
}

template<class Param, class Value>
Value monFile::Set(std::fpos<int> position, Value value)
{
    const auto word = Encode(value);
    const int start = OffsetOf(position);
    stream->CheckOpen();
    const btkHandle handle = stream->fileBuf->GetHandle();
    std::optional<monWriteLock> lock;
    if (monIsSplit(start, sizeof word))
        lock.emplace(handle, start, static_cast<int>(sizeof word));
    if (btkWriteWholeAt(handle, &word, sizeof word, start) != sizeof word)
        Attempt([&] { stream->ThrowState(ioFileStream::stateBad); });
    return value;
}

xstring monFile::GetText(int start, int capacity)
{
    constexpr int readAtOnce = 4096;
    stream->CheckOpen();
    return LoadLocked(start, wordSize + capacity, [&] {
        Seek(start);
        stream->fileBuf->ExpectRead(static_cast<std::size_t>(std::min(wordSize + capacity, readAtOnce)));
        return LoadStringA(capacity);
    });
}

void monFile::SetText(int start, int capacity, const char* text)
{
    stream->CheckOpen();
    const monWriteLock lock(stream->fileBuf->GetHandle(), start, wordSize + capacity);
    Attempt([&] {
        Seek(start);
        StoreString(text);
    });
}

monParam::monParam(monFile& owner, const char* called, std::fpos<int> at)
    : name(called), file(&owner), position(at)
{
    owner.params->set(called, this);
}

monParam::~monParam() = default;

xstring monParam::getName()
{
    return name;
}

monBoolParam::monBoolParam(monFile& owner, xstring called, std::fpos<int> at)
    : monParam(owner, called.CastToCString(), at)
{
}

unsigned char monBoolParam::getValue()
{
    return file->Get<self>(position);
}

unsigned char monBoolParam::setValue(unsigned char v)
{
    return file->Set<self>(position, v);
}

monIntParam::monIntParam(monFile& owner, xstring called, std::fpos<int> at)
    : monParam(owner, called.CastToCString(), at)
{
}

int monIntParam::getValue()
{
    return file->Get<self>(position);
}

int monIntParam::setValue(int v)
{
    return file->Set<self>(position, v);
}

monRealParam::monRealParam(monFile& owner, xstring called, std::fpos<int> at)
    : monParam(owner, called.CastToCString(), at)
{
}

double monRealParam::getValue()
{
    return file->Get<self>(position);
}

double monRealParam::setValue(double v)
{
    return file->Set<self>(position, v);
}

monStringParam::monStringParam(monFile& owner, xstring called, std::fpos<int> at, int size)
    : monParam(owner, called.CastToCString(), at), capacity(size)
{
}

xstring monStringParam::getValue()
{
    xstring value = file->GetText(OffsetOf(position), capacity);
    if (value == nullptr)
        ThrowWeird();
    return value;
}

xstring monStringParam::setValue(const char* v)
{
    if (qelIsObject(v) && std::strlen(v) > static_cast<std::size_t>(capacity))
        qelXNativeException::Throw("monStringParam::setValue: Value too long");
    file->SetText(OffsetOf(position), capacity, v);
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

// ---- the file

monFile::monFile(ioFileStream* opened) : stream(opened), title(""), params(new (pDefMemMgr) monParamDict)
{
}

monFile::~monFile()
{
    while (firstParam != nullptr) {
        monParam* const gone = firstParam;
        firstParam = gone->next;
        xdelete(gone);
    }
    xdelete(params);
    xdelete(stream);
}

// Opens what is to be a monitor file. Null when that fails, and for what is no file, which would let a reader
// wait.
monFile* monFile::Attach(const char* path)
{
    std::unique_ptr<ioFileStream, Xdelete> opened(ioFileStream::Open(path, ioReadWrite));
    if (opened == nullptr || opened->fileBuf->GetFileSize() < 0)
        return nullptr;
    opened->setSerializer(ioSerializer::getXDR());
    opened->fileBuf->KeepWhole();
    monFile* const file = new (pDefMemMgr) monFile(opened.get());
    opened.release();
    return file;
}

monFile* monFile::Open(const char* path)
{
    std::unique_ptr<monFile, Xdelete> file(Attach(path));
    if (file == nullptr)
        return nullptr;
    file->headerWord = file->LoadInt();
    if (file->headerWord > 0)
        return nullptr;
    file->title = file->stream->ReadString(nullptr);
    file->dataStart = file->readUpTo = file->WhereAmI();
    return file.release();
}

monFile* monFile::Create(const char* path, const char* newTitle)
{
    std::unique_ptr<monFile, Xdelete> file(Attach(path));
    if (file == nullptr) {
        // Opening for writing makes it.
        const std::unique_ptr<ioFileStream, Xdelete> made(ioFileStream::Open(path, ioWriteOnly));
        if (made == nullptr)
            return nullptr;
        file.reset(Attach(path));
    }
    if (file == nullptr || !btkSetFileSize(file->stream->fileBuf->GetHandle(), 0))
        return nullptr;
    file->stream->WriteInt(0);
    file->StoreString(newTitle);
    file->dataStart = file->readUpTo = file->WhereAmI();
    if (qelIsObject(newTitle))
        file->title = newTitle;
    return file.release();
}

xstring monFile::getTitle()
{
    return title;
}

monParamDict* monFile::getParams()
{
    UpdateCache();
    return params;
}

monIntParam* monFile::Int(const char* name)
{
    return FindOrAdd<monIntParam>(name);
}

monBoolParam* monFile::Bool(const char* name)
{
    return FindOrAdd<monBoolParam>(name);
}

monRealParam* monFile::Real(const char* name)
{
    return FindOrAdd<monRealParam>(name);
}

monStringParam* monFile::String(const char* name, int capacity)
{
    return FindOrAdd<monStringParam>(name, capacity);
}

void monFile::Close()
{
    stream->Close();
}

// ---- items

int monFile::WhereAmI()
{
    const int position = stream->TellPos();
    if (position == xnullint)
        ThrowTooLarge();
    return position;
}

void monFile::Seek(int position)
{
    stream->SeekOff(position, ioBegin);
}

// Moves behind the last whole record. What stands there was left by a writer that was killed.
void monFile::SeekEnd()
{
    stream->CheckOpen();
    xfilebuf& file = *stream->fileBuf;
    if (file.GetFileSize() > readUpTo && !btkSetFileSize(file.GetHandle(), readUpTo))
        stream->ThrowState(ioFileStream::stateBad);
    Seek(readUpTo);
}

void monFile::StoreBool(unsigned char v)
{
    stream->WriteBool(v);
    stream->Flush(1);
}

void monFile::StoreInt(int v)
{
    stream->WriteInt(v);
    stream->Flush(1);
}

void monFile::StoreReal(double v)
{
    stream->WriteReal(v);
    stream->Flush(1);
}

void monFile::StoreString(const char* text)
{
    stream->WriteString(text);
    stream->Flush(1);
}

// The whole area of a value: the text and zeros.
void monFile::StoreFixedString(const char* text, int capacity)
{
    static constexpr char zeros[4096] = {};
    stream->WriteString(text);
    for (int left = capacity - static_cast<int>(std::strlen(text)); left > 0;) {
        const int part = std::min<int>(left, sizeof zeros);
        stream->WriteBytes(zeros, static_cast<unsigned>(part));
        left -= part;
    }
    stream->Flush(1);
}

unsigned char monFile::LoadBool()
{
    return stream->ReadBool();
}

int monFile::LoadInt()
{
    return stream->ReadInt();
}

double monFile::LoadReal()
{
    return stream->ReadReal();
}

// Null when the length is none that the area can hold.
xstring monFile::LoadStringA(int capacity)
{
    const int length = stream->ReadInt();
    if (length < 0 || length > capacity)
        return nullptr;
    // Back to the length, which was read right after a seek and is still held.
    for (int i = 0; i < wordSize; ++i)
        stream->fileBuf->sungetc();
    return stream->ReadString(nullptr);
}

// Moves past the area of a value. False when the length is none that it can hold.
bool monFile::LoadFixedString(int capacity)
{
    const int length = stream->ReadInt();
    ReadPast(capacity);
    return length >= 0 && length <= capacity;
}

void monFile::ReadPast(int size)
{
    char passed[4096];
    if (size > static_cast<int>(sizeof passed))
        stream->SeekOff(size, ioCur);
    else
        stream->ReadBytes(passed, static_cast<unsigned>(size));
}

// ---- records

void monFile::UpdateCache()
{
    constexpr int attempts = 5;
    stream->CheckOpen();
    for (int left = attempts;; --left) {
        const long long end = stream->fileBuf->GetFileSize();
        if (end < readUpTo)
            qelXNativeException::Throw("monFile has shrunk!");
        if (end == readUpTo)
            return;
        try {
            ReadRecords(end);
            return;
        } catch (xthrowable* thrown) {
            // Since the size was taken, a writer may have cut off a record that was never finished.
            if (!stream->getIsEof() || left == 0)
                throw;
            xdelete(thrown);
        }
    }
}

// Reads the records that are complete in a file of the size `end`.
void monFile::ReadRecords(long long end)
{
    Seek(readUpTo);
    stream->fileBuf->ExpectRead(static_cast<std::size_t>(end - readUpTo));
    while (ReadRecord(end)) {
    }
}

// Reads the record at readUpTo, where the stream stands. False when it is not all there yet.
bool monFile::ReadRecord(long long end)
{
    const long long left = end - readUpTo;
    if (left < headSize)
        return false;
    const int type = LoadInt();
    LoadInt();
    const int nameLength = LoadInt();
    if (type < boolRecord || type > stringRecord || nameLength < 0 || nameLength > longestName)
        ThrowWeird();
    long long position = static_cast<long long>(readUpTo) + headSize + nameLength;
    if (type == stringRecord)
        position += wordSize;
    if (position > end)
        return false;
    char name[longestName + 1] = {};
    stream->ReadBytes(name, static_cast<unsigned>(nameLength));
    const int capacity = type == stringRecord ? LoadInt() : 0;
    const long long next = position + FixedSize(type) + capacity;
    if (capacity < 0 || next > INT_MAX)
        ThrowWeird();
    if (next > end)
        return false;

    const int valueAt = static_cast<int>(position);
    switch (type) {
    case boolRecord:
        LoadBool();
        Enter<monBoolParam>(name, valueAt);
        break;
    case intRecord:
        LoadInt();
        Enter<monIntParam>(name, valueAt);
        break;
    case realRecord:
        LoadReal();
        Enter<monRealParam>(name, valueAt);
        break;
    default:
        if (!LoadFixedString(capacity)) {
            // The length may have been rewritten just now.
            if (GetText(valueAt, capacity) == nullptr)
                ThrowWeird();
            Seek(static_cast<int>(next));
        }
        Enter<monStringParam>(name, valueAt, capacity);
    }
    readUpTo = static_cast<int>(next);
    return true;
}

template<class Param, class... Capacity>
Param* monFile::Enter(const char* name, int position, Capacity... capacity)
{
    Param* const made = new (pDefMemMgr) Param(*this, name, position, capacity...);
    made->next = firstParam;
    firstParam = made;
    return made;
}

monParam* monFile::FindRecord(const char* name)
{
    UpdateCache();
    monParam* found = nullptr;
    params->find(name, &found);
    return found;
}

template<class Param, class... Capacity>
Param* monFile::FindOrAdd(const char* name, Capacity... capacity)
{
    constexpr btkTimeval limit(2, 0);
    if (!qelIsObject(name))
        qelhThrowNotInitialized();
    monParam* found = FindRecord(name);
    if (found == nullptr) {
        btkRangeLock adding(stream->fileBuf->GetHandle(), 0, 1);
        if (adding.Wait(btkRangeLock::Exclusive, limit) == btkRangeLock::Busy)
            qelXNativeException::Throw("monFile: Another process is adding parameters");
        found = FindRecord(name);
        if (found == nullptr)
            return Append<Param>(name, capacity...);
    }
    return found->isSameAs(Param::getClassRtti()) ? Param::softcast(found) : nullptr;
}

void monFile::WriteParamHead(const char* name, int type)
{
    if (std::strlen(name) > longestName)
        qelXNativeException::Throw("monFile::WriteParamHead: Name too long");
    SeekEnd();
    stream->WriteInt(type);
    stream->WriteInt(0);
    stream->WriteString(name);
}

// The whole record becomes visible at once where it is not too large; while a part is missing, nobody counts
// it.
template<class Param, class... Capacity>
Param* monFile::Append(const char* name, Capacity... capacity)
{
    constexpr int type = Kind<Param>::type;
    const int room = (0 + ... + capacity);
    if (room < 0)
        qelXNativeException::Throw("monFile::String: Negative capacity");
    constexpr int capacityWord = type == stringRecord ? wordSize : 0;
    const long long end = readUpTo + static_cast<long long>(std::strlen(name)) + headSize + capacityWord +
                          FixedSize(type) + room;
    if (end > INT_MAX)
        ThrowTooLarge();
    int position = 0;
    Attempt([&] {
        WriteParamHead(name, type);
        if constexpr (type == stringRecord) {
            stream->WriteInt(room);
            position = WhereAmI();
            StoreFixedString("", room);
        } else {
            position = WhereAmI();
            (this->*Kind<Param>::store)(0);
        }
    });
    Param* const made = Enter<Param>(name, position, capacity...);
    readUpTo = static_cast<int>(end);
    return made;
}
