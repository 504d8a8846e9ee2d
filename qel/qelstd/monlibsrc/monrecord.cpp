#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>

#include <qel/base/btkbyteorder.h>

#include "monfile_p.h"
#include "qelcaught.h"

// ---- the format

namespace {

// The type codes of the records.
enum RecordType : int { boolRecord, intRecord, realRecord, stringRecord };

constexpr int headSize = 12; // type, reserved, length of the name
constexpr int longestName = 1023;

template<class Param>
constexpr RecordType typeOf = stringRecord;
template<>
constexpr RecordType typeOf<monBoolParam> = boolRecord;
template<>
constexpr RecordType typeOf<monIntParam> = intRecord;
template<>
constexpr RecordType typeOf<monRealParam> = realRecord;

// The size of a value of a kind other than string, and of the length of a string.
constexpr int fixedSize(int type)
{
    return type == realRecord ? monRealSize : monWordSize;
}

[[noreturn]] void throwTooLarge()
{
    qelXNativeException::Throw("monFile: File too large");
}

} // namespace

// ---- items

int monFile::Inside::WhereAmI()
{
    const int position = stream->TellPos();
    if (position == xnullint)
        throwTooLarge();
    return position;
}

// Seeks behind the last whole record. Bytes from there to `end`, the file's size, are the leftovers of a killed writer.
void monFile::Inside::SeekEnd(long long end)
{
    if (end > readUpTo && !IsTail(end))
        monThrowWeird();
    if (end > readUpTo && !btkSetFileSize(stream->fileBuf->GetHandle(), readUpTo))
        stream->ThrowState(ioFileStream::stateBad);
    Seek(readUpTo);
}

void monFile::Inside::StoreBool(unsigned char v)
{
    stream->WriteBool(v);
    stream->Flush(1);
}

void monFile::Inside::StoreInt(int v)
{
    stream->WriteInt(v);
    stream->Flush(1);
}

void monFile::Inside::StoreReal(double v)
{
    stream->WriteReal(v);
    stream->Flush(1);
}

void monFile::Inside::StoreString(const char* text)
{
    stream->WriteString(text);
    stream->Flush(1);
}

// The whole area of a value: the text and zeros.
void monFile::Inside::StoreFixedString(const char* text, int capacity)
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

// Null when the length exceeds the area.
xstring monFile::Inside::LoadStringA(int capacity)
{
    const int length = stream->ReadInt();
    if (length < 0 || length > capacity)
        return nullptr;
    // Back to the length, which was read right after a seek and is still held.
    for (int i = 0; i < monWordSize; ++i)
        stream->fileBuf->sungetc();
    return stream->ReadString(nullptr);
}

// Moves past the area of a value. False when the length exceeds it.
bool monFile::Inside::LoadFixedString(int capacity)
{
    const int length = stream->ReadInt();
    ReadPast(capacity);
    return length >= 0 && length <= capacity;
}

void monFile::Inside::ReadPast(int size)
{
    char passed[4096];
    if (size > static_cast<int>(sizeof passed))
        stream->SeekOff(size, ioCur);
    else
        stream->ReadBytes(passed, static_cast<unsigned>(size));
}

// ---- records

void monFile::Inside::UpdateCache()
{
    constexpr int attempts = 5;
    Prepare();
    for (int left = attempts;; --left) {
        const long long end = SizeUnlessGone();
        btkFileState there;
        if (!btkGetFileState(path.c_str(), there) || !there.IsSameFile(opened))
            ThrowGone();
        if (end == readUpTo)
            return;
        try {
            ReadRecords(end);
            return;
        } catch (xthrowable* thrown) {
            // Since the size was taken, a writer may have cut off a record that was never finished.
            if (!stream->getIsEof() || left == 0)
                throw;
            const qel::caught caught(thrown);
        }
    }
}

// Reads the records that are complete in a file of the size `end`.
void monFile::Inside::ReadRecords(long long end)
{
    Seek(readUpTo);
    stream->fileBuf->ExpectRead(static_cast<std::size_t>(end - readUpTo));
    while (ReadRecord(end)) {
    }
}

// Reads the record at readUpTo, the stream's position. False when it is not complete yet.
bool monFile::Inside::ReadRecord(long long end)
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
    const long long next = position + fixedSize(type) + capacity;
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

// Whether the incomplete bytes behind the last whole record can be the start of a record whose writer was
// killed. If they are whole records swallowed by a damaged length, there are zeros where none are allowed, in
// the name, or none where they are required, behind a text.
bool monFile::Inside::IsTail(long long end)
{
    constexpr int largestHead = headSize + longestName + 2 * monWordSize;
    const btkHandle handle = stream->fileBuf->GetHandle();
    unsigned char head[largestHead] = {}; // missing bytes count as zero
    const std::ptrdiff_t there = btkReadAt(handle, head, sizeof head, readUpTo);
    const auto wordAt = [&head](long long at) {
        std::uint32_t word;
        std::memcpy(&word, head + at, sizeof word);
        return btkNetworkOrder(word);
    };
    const std::uint32_t type = wordAt(0), nameLength = wordAt(8);
    if (there < 0 || type > stringRecord || wordAt(4) != 0 || nameLength > longestName)
        return false;
    const long long nameEnd = headSize + static_cast<long long>(nameLength);
    const long long nameThere = std::max(std::min<long long>(there, nameEnd) - headSize, 0LL);
    if (std::memchr(head + headSize, 0, static_cast<std::size_t>(nameThere)) != nullptr)
        return false;
    if (type != stringRecord)
        return true;
    const std::uint32_t capacity = wordAt(nameEnd), length = wordAt(nameEnd + monWordSize);
    if (capacity > INT_MAX || length > capacity)
        return false;
    char block[4096];
    std::ptrdiff_t count = 0;
    for (long long at = readUpTo + nameEnd + 2 * monWordSize + length; at < end; at += count) {
        count = btkReadAt(handle, block,
                          static_cast<std::size_t>(std::min<long long>(sizeof block, end - at)), at);
        if (count <= 0 || std::any_of(block, block + count, [](char c) { return c != '\0'; }))
            return false;
    }
    return true;
}

monFile::State monFile::Check(int& offset)
{
    State state = whole;
    try {
        inside->UpdateCache();
        const long long end = inside->SizeUnlessGone();
        if (end > inside->readUpTo)
            state = inside->IsTail(end) ? unfinished : damaged;
    } catch (xthrowable* thrown) {
        if (qelXNativeException::softcast(thrown) == nullptr || isReplaced() ||
            btkGetFileSize(inside->stream->fileBuf->GetHandle()) < inside->readUpTo)
            throw;
        const qel::caught caught(thrown);
        state = damaged;
    }
    offset = inside->readUpTo;
    return state;
}

// The object from before Reopen is used again.
template<class Param, class... Capacity>
Param* monFile::Inside::Enter(const char* name, int position, Capacity... capacity)
{
    monParam* before = nullptr;
    if (lost.find(name, &before) && before->isSameAs(Param::getClassRtti())) {
        Param* const found = Param::softcast(before);
        lost.remove(name);
        found->isLost = false;
        found->position = position;
        if constexpr (sizeof...(capacity) > 0)
            found->capacity = (0 + ... + capacity);
        params->set(name, found);
        if (sizeof...(capacity) == 0 && isWatched)
            WatchNumber(*found);
        return found;
    }
    Param* const made = new (pDefMemMgr) Param(*file, name, position, capacity...);
    made->next = firstParam;
    firstParam = made;
    if (sizeof...(capacity) == 0 && isWatched)
        WatchNumber(*made);
    return made;
}

monParam* monFile::Inside::FindRecord(const char* name)
{
    UpdateCache();
    monParam* found = nullptr;
    params->find(name, &found);
    return found;
}

template<class Param, class... Capacity>
Param* monFile::Inside::FindOrAdd(const char* name, Capacity... capacity)
{
    constexpr btkTimeval limit(2, 0);
    if (!qelIsObject(name))
        qelhThrowNotInitialized();
    monParam* found = FindRecord(name);
    if (found == nullptr) {
        PrepareToWrite();
        btkRangeLock adding(stream->fileBuf->GetHandle(), 0, 1);
        if (adding.Wait(btkRangeLock::Exclusive, limit) == btkRangeLock::Busy)
            qelXNativeException::Throw("monFile: Another process is adding parameters");
        const long long size = SizeUnlessGone();
        if (size > readUpTo)
            found = FindRecord(name);
        if (found == nullptr)
            return Append<Param>(size, name, capacity...);
    }
    return found->isSameAs(Param::getClassRtti()) ? Param::softcast(found) : nullptr;
}

void monFile::Inside::WriteParamHead(long long size, const char* name, int type)
{
    if (std::strlen(name) > longestName)
        qelXNativeException::Throw("monFile::WriteParamHead: Name too long");
    SeekEnd(size);
    stream->WriteInt(type);
    stream->WriteInt(0);
    stream->WriteString(name);
}

// A record that is not too large becomes visible atomically; readers ignore it while a part is missing.
template<class Param, class... Capacity>
Param* monFile::Inside::Append(long long size, const char* name, Capacity... capacity)
{
    constexpr RecordType type = typeOf<Param>;
    const int room = (0 + ... + capacity);
    if (room < 0)
        qelXNativeException::Throw("monFile::String: Negative capacity");
    constexpr int capacityWord = type == stringRecord ? monWordSize : 0;
    const long long end = readUpTo + static_cast<long long>(std::strlen(name)) + headSize + capacityWord +
                          fixedSize(type) + room;
    if (end > INT_MAX)
        throwTooLarge();
    int position = 0;
    Attempt([&] {
        WriteParamHead(size, name, type);
        if constexpr (type == stringRecord) {
            stream->WriteInt(room);
            position = WhereAmI();
            StoreFixedString("", room);
        } else {
            position = WhereAmI();
            if constexpr (type == boolRecord)
                StoreBool(0);
            else if constexpr (type == intRecord)
                StoreInt(0);
            else
                StoreReal(0);
        }
    });
    Param* const made = Enter<Param>(name, position, capacity...);
    readUpTo = static_cast<int>(end);
    return made;
}

monIntParam* monFile::Int(const char* name)
{
    return inside->FindOrAdd<monIntParam>(name);
}

monBoolParam* monFile::Bool(const char* name)
{
    return inside->FindOrAdd<monBoolParam>(name);
}

monRealParam* monFile::Real(const char* name)
{
    return inside->FindOrAdd<monRealParam>(name);
}

monStringParam* monFile::String(const char* name, int capacity)
{
    return inside->FindOrAdd<monStringParam>(name, capacity);
}
