#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>

#include "monfile_p.h"
#include "qeltable.h"
#include <qel/base/btkfilepart.h>

constinit qelClass monFile::rtti = {
    .name = "monlib::File",
    .attrs = {QEL_ATTR(Title), QEL_ATTR(Params)},
};

// ---- the format

namespace {

// The type codes of the records.
enum RecordType : int { boolRecord, intRecord, realRecord, stringRecord };

constexpr int headSize = 12; // type, reserved, length of the name
constexpr int longestName = 1023;

// The size of a value of a kind other than string, and of the length of a string.
constexpr int FixedSize(int type)
{
    return type == realRecord ? monRealSize : monWordSize;
}

[[noreturn]] void ThrowTooLarge()
{
    qelXNativeException::Throw("monFile: File too large");
}

} // namespace

template<>
struct monFile::Kind<monBoolParam>
{
    static constexpr int type = boolRecord;
    static constexpr auto store = &monFile::StoreBool;
};

template<>
struct monFile::Kind<monIntParam>
{
    static constexpr int type = intRecord;
    static constexpr auto store = &monFile::StoreInt;
};

template<>
struct monFile::Kind<monRealParam>
{
    static constexpr int type = realRecord;
    static constexpr auto store = &monFile::StoreReal;
};

template<>
struct monFile::Kind<monStringParam>
{
    static constexpr int type = stringRecord;
};

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
    std::unique_ptr<ioFileStream, qelDelete> opened(ioFileStream::Open(path, ioReadWrite));
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
    std::unique_ptr<monFile, qelDelete> file(Attach(path));
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
    std::unique_ptr<monFile, qelDelete> file(Attach(path));
    if (file == nullptr) {
        // Opening for writing makes it.
        const std::unique_ptr<ioFileStream, qelDelete> made(ioFileStream::Open(path, ioWriteOnly));
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
    for (int i = 0; i < monWordSize; ++i)
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
        monThrowWeird();
    long long position = static_cast<long long>(readUpTo) + headSize + nameLength;
    if (type == stringRecord)
        position += monWordSize;
    if (position > end)
        return false;
    char name[longestName + 1] = {};
    stream->ReadBytes(name, static_cast<unsigned>(nameLength));
    const int capacity = type == stringRecord ? LoadInt() : 0;
    const long long next = position + FixedSize(type) + capacity;
    if (capacity < 0 || next > INT_MAX)
        monThrowWeird();
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
                monThrowWeird();
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
    constexpr int capacityWord = type == stringRecord ? monWordSize : 0;
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
