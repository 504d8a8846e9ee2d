#pragma once

#include <memory>
#include <string>

#include <qel/base/btkfilepart.h>
#include <qel/base/btksystem.h>
#include <qel/base/xfilebuf.h>

#include "monchange_p.h"
#include "qelexception.h"
#include "xiolib.h"
#include "xmonlib.h"

// Shared by the file and its parameters.

constexpr int monWordSize = 4; // of a bool, an int and the length of a text
constexpr int monRealSize = 8;

// The state of an open file, and the operations that it shares with its parameters.
struct monFile::Inside
{
    using Stream = std::unique_ptr<ioFileStream, qelDelete>;

    static Inside& Of(monFile& file) { return *file.inside; }

    Inside(Stream opened, std::string hostPath, bool readOnly);
    ~Inside();

    // ---- opening; each returns a new file, or null
    static monFile* Make(Stream opened, const std::string& path, bool isReadOnly);
    static monFile* Attach(const std::string& path, const char* given);
    static monFile* OpenAt(const std::string& path, const char* given);
    static monFile* MakeAnew(const std::string& path, const char* given, const std::string& head);
    bool BeginInPlace(const std::string& head);

    // ---- items
    int WhereAmI();
    void Seek(int to) { stream->SeekOff(to, ioBegin); }
    void SeekEnd(long long end);
    // Each Store writes one item and flushes.
    void StoreBool(unsigned char v);
    void StoreInt(int v);
    void StoreReal(double v);
    void StoreString(const char* text);
    void StoreFixedString(const char* text, int capacity);
    unsigned char LoadBool() { return stream->ReadBool(); }
    int LoadInt() { return stream->ReadInt(); }
    double LoadReal() { return stream->ReadReal(); }
    xstring LoadStringA(int capacity);
    bool LoadFixedString(int capacity);
    void ReadPast(int size);

    // Before each access: reopens the file if a parent process opened it.
    void Prepare();
    void PrepareToWrite();
    long long SizeUnlessGone();
    [[noreturn]] void ThrowGone();
    int PositionOf(monParam& parameter);

    void WatchAnew();
    void WatchNumbers();
    void WatchNumber(monParam& parameter);
    void EndChanges();

    // ---- a value in its place
    template<class Value>
    Value Get(monParam& parameter);
    template<class Value>
    Value Set(monParam& parameter, Value value);
    xstring GetText(int start, int capacity); // null: the stored length exceeds the capacity
    void SetText(int start, int capacity, const char* text);
    template<class Load>
    auto LoadLocked(int start, int size, Load load);
    template<class Transfer>
    void Attempt(Transfer transfer);

    // ---- records
    void UpdateCache();
    void ReadRecords(long long end);
    bool ReadRecord(long long end);
    bool IsTail(long long end);
    monParam* FindRecord(const char* name);
    template<class Param, class... Capacity>
    Param* FindOrAdd(const char* name, Capacity... capacity);
    template<class Param, class... Capacity>
    Param* Append(long long size, const char* name, Capacity... capacity);
    void WriteParamHead(long long size, const char* name, int type);
    template<class Param, class... Capacity>
    Param* Enter(const char* name, int position, Capacity... capacity);

    monFile* file = nullptr;
    Stream stream;
    std::string path; // in the operating system's form, absolute
    btkFileState opened;
    bool isReadOnly;
    int process = btkProcessNumber(); // the process that opened it
    int dataStart = 0;
    int readUpTo = 0;
    xstring title = "";
    int headerWord = 0;
    std::unique_ptr<monParamDict, qelDelete> params;
    // Parameters of the file as it was before Reopen that have not been found again, by their names.
    monParamDict lost;
    monParam* firstParam = nullptr;    // all, including those shadowed by later ones of their name
    bool isPatient = true;             // whether the last wait for a writer succeeded
    bool isPolite = true;              // whether the last wait for readers succeeded
    std::weak_ptr<monChanges> changes; // while there are events of them
    bool isWatched = false;            // there have been
};

[[noreturn]] inline void monThrowWeird()
{
    qelXNativeException::Throw("Weird parameter type");
}

// Runs `transfer`. After a failure, drops pending data and the error state of the stream, so that the file
// stays usable.
template<class Transfer>
void monFile::Inside::Attempt(Transfer transfer)
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
