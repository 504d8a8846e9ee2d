#pragma once

#include <qel/xdictionary.h>
#include <qel/xsequence.h>

class ioStream;

/// A number on a stream, independent of the machine: four bytes, the most significant one first.
QEL_API void PutIndependentInt(ioStream* s, int v);
/// 0 when four bytes could not be read.
QEL_API int GetIndependentInt(ioStream* s);

/// The limits of a record. Each is 256, or a value from 1 to 255 in the registry key at the path `key` below
/// the system root; null: no key.
///
///     std::cout << nmsRecordLimits::GetNumberOfFields(nullptr) << '\n'; // 256
class QEL_API nmsRecordLimits
{
public:
    /// "MaxNumFields"
    static int GetNumberOfFields(const char* key);
    /// "FieldNameMaxLength", in bytes with the ending zero.
    static int GetFieldNameLength(const char* key);
    /// "FieldValueMaxLength", in bytes with the ending zero.
    static int GetFieldValueLength(const char* key);

private:
    static int GetRegistryValue(const char* key, const char* name);
    static int GetLimit(const char* key, const char* name);
};

/// A record of the name service: named texts, and the process that they belong to. Counted. Used by one
/// thread at a time.
///
///     const auto record = qel::make<nmsRecord>(0u); // of no process: stays until it is deleted
///     record->Add("service", "words");
///     record->Add("room", "2");
///     const auto pattern = qel::make<nmsRecord>(0u);
///     pattern->Add("service", "words");
///     std::cout << (record->Match(pattern.get()) != 0) << '\n'; // 1
class QEL_API nmsRecord : public virtual xobject
{
    QEL_OBJECT(nmsRecord); // "nmsclib::Record", counted

public:
    /// An empty record of the process with that id; 0: of no process, 1: of this process.
    explicit nmsRecord(unsigned int ownerPid);
    /// A new one, with the count 0: the first handle that holds it owns it.
    static nmsRecord* Create(int ownerPid);

    /// Sets a field; replaces the value of an existing one. Returns true.
    /// @throws qelXNotInitialized  `name` is not a text
    unsigned char Add(const char* name, const char* value);
    /// Whether it has that field.
    unsigned char HasField(const char* name);
    /// Null when there is no such field.
    xstring GetFieldValueByName(const char* name);
    /// The record's own fields, not a copy.
    xrchandle<xstringdictionary> getFields();

    /// Whether the record belongs to a process.
    unsigned char IsAssociated();
    /// Whether its process is running.
    bool IsAlive() const;
    /// Whether this record has every field of `pattern`, with the same value. Null: no.
    unsigned char Match(nmsRecord* pattern);
    /// Not implemented: ends the process with the fatal report.
    void Clear();

    /// Writes the record. False when `s` is null, when a limit is exceeded (before anything is written when
    /// it is the number of fields, with the fields before it when a text is too long), and when writing
    /// failed.
    bool Send(ioStream* s);
    /// Replaces the record by one read from `s`. False when `s` is null, ends or fails, and when a limit of
    /// nmsRecordLimits is exceeded; the record keeps the fields read so far.
    bool Receive(ioStream* s, const char* limitsKey);

private:
    friend struct nmsRecordWire;

    xrchandle<xstringdictionary> fields;
    unsigned int ownerId;
};

/// Records, as plain pointers: the array owns none of them. Counted.
///
///     const xrchandle<nmsServerProxy> server = nmsServerProxy::InitLocalProxy();
///     const xrchandle<nmsRecordArray> found = server->Query(qel::make<nmsRecord>(0u).get()); // all
///     for (const xrchandle<nmsRecord> record : *found)                                      // frees each
///         std::cout << record->GetFieldValueByName("service") << '\n';
class QEL_API nmsRecordArray : public xtssequence<nmsRecord*>
{
    QEL_OBJECT(nmsRecordArray); // "nmsclib::RecordArray", counted

public:
    nmsRecordArray() : xtssequence({false, 256}) {}
    static nmsRecordArray* create() { return new (pDefMemMgr) nmsRecordArray; }
};
