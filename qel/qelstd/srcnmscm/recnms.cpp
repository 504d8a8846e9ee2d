#include "recnms.h"

#include <string>

#include <qel/base/btkprocess.h>
#include <qel/base/nmsclient.h>

#include "hmxregistry.h"
#include "qelcaught.h"
#include "qelfatal_p.h"
#include "qeltable.h"
#include "recnms_p.h"
#include "xiolib.h"

constinit qelClass nmsRecord::rtti = {
    .name = "nmsclib::Record",
    .counted = true,
    .attrs = {QEL_ATTR(Fields)},
};

constinit qelClass nmsRecordArray::rtti = {
    .name = "nmsclib::RecordArray",
    .counted = true,
    .elements = qelSequenceOf<self>,
    .create = &qelCreateOf<self>,
};

// ---- numbers

void PutIndependentInt(ioStream* s, int v)
{
    std::string bytes;
    nmsPutInt(bytes, v);
    s->WriteBytes(bytes.data(), nmsIntSize);
}

int GetIndependentInt(ioStream* s)
{
    char bytes[nmsIntSize] = {};
    return s->ReadBytes(bytes, nmsIntSize) == nmsIntSize ? nmsGetInt(bytes) : 0;
}

// ---- limits

int nmsRecordLimits::GetRegistryValue(const char* key, const char* name)
{
    hmxRegistryKey opened;
    int value = 0;
    if (!qelIsObject(key) || !opened.Open(hmxRegistry::System().root, key))
        return 0;
    return opened.GetValue(name).ToInt(&value) ? value : 0;
}

int nmsRecordLimits::GetLimit(const char* key, const char* name)
{
    constexpr int most = 256;
    const int value = GetRegistryValue(key, name);
    return value > 0 && value < most ? value : most;
}

int nmsRecordLimits::GetNumberOfFields(const char* key)
{
    return GetLimit(key, "MaxNumFields");
}

int nmsRecordLimits::GetFieldNameLength(const char* key)
{
    return GetLimit(key, "FieldNameMaxLength");
}

int nmsRecordLimits::GetFieldValueLength(const char* key)
{
    return GetLimit(key, "FieldValueMaxLength");
}

namespace {

nmsLimits limitsOf(const char* key)
{
    return {.fields = static_cast<unsigned>(nmsRecordLimits::GetNumberOfFields(key)),
            .nameSize = static_cast<unsigned>(nmsRecordLimits::GetFieldNameLength(key)),
            .valueSize = static_cast<unsigned>(nmsRecordLimits::GetFieldValueLength(key))};
}

// Calls `visit(name, value)` for the fields in the order of their slots, until it returns false.
template<class Visit>
bool forEachField(xstringdictionary& fields, Visit visit)
{
    xstring name;
    xstring value;
    for (int slot = 0; slot < fields.getarraysize(); ++slot)
        if (fields.getkeybyindex(slot, &name) && fields.getbyindex(slot, &value) && !visit(name, value))
            return false;
    return true;
}

} // namespace

// ---- record

nmsRecord::nmsRecord(unsigned int ownerPid)
    : fields(xstringdictionary::create()), ownerId(ownerPid == 1 ? nmsGetOwnProcess() : ownerPid)
{
}

nmsRecord* nmsRecord::Create(int ownerPid)
{
    return new (pDefMemMgr) nmsRecord(static_cast<unsigned>(ownerPid));
}

unsigned char nmsRecord::Add(const char* name, const char* value)
{
    fields->set(name, value);
    return 1;
}

unsigned char nmsRecord::HasField(const char* name)
{
    return fields->find(name, nullptr);
}

xstring nmsRecord::GetFieldValueByName(const char* name)
{
    xstring value;
    fields->find(name, &value);
    return value;
}

xrchandle<xstringdictionary> nmsRecord::getFields()
{
    return fields;
}

unsigned char nmsRecord::IsAssociated()
{
    return ownerId != 0;
}

bool nmsRecord::IsAlive() const
{
    btkProcess* process = nullptr;
    if (ownerId == 0 || !Process_Open(&process, ownerId))
        return false;
    const bool runs = Process_CheckRunning(process);
    Process_Free(process);
    return runs;
}

unsigned char nmsRecord::Match(nmsRecord* pattern)
{
    return qelIsObject(pattern) &&
           forEachField(*pattern->fields, [&](const xstring& name, const xstring& wanted) {
               xstring value;
               return fields->find(name.CastToCString(), &value) && value == wanted;
           });
}

void nmsRecord::Clear()
{
    nmsNoClear.Report();
}

// ---- wire form

bool nmsRecordWire::Encode(const nmsRecord& record, std::string& to)
{
    const nmsLimits limits = limitsOf(nullptr);
    unsigned count = 0;
    forEachField(*record.fields, [&](const xstring&, const xstring&) { return ++count; });
    if (count > limits.fields)
        return false;
    nmsPutInt(to, static_cast<int>(record.ownerId));
    nmsPutInt(to, static_cast<int>(count));
    const auto put = [](std::string& end, const xstring& text, unsigned limit) {
        const char* const bytes = text.CastToCString(); // first: the size is exact once this form exists
        if (!qelIsObject(bytes))
            return nmsPutText(end, "", 1, 0, limit);
        return nmsPutText(end, bytes, text.GetMBSize(), static_cast<unsigned>(text.GetLength()), limit);
    };
    return forEachField(*record.fields, [&](const xstring& name, const xstring& value) {
        std::string field; // whole or not at all
        if (!put(field, name, limits.nameSize) || !put(field, value, limits.valueSize))
            return false;
        to += field;
        return true;
    });
}

void nmsRecordWire::Take(nmsRecord& record, const nmsFields& received)
{
    record.ownerId = received.owner;
    record.fields->clearall();
    for (const auto& [name, value] : received.fields)
        record.fields->set(name.c_str(), value.c_str());
}

bool nmsRecord::Send(ioStream* s)
{
    if (!qelIsObject(s))
        return false;
    std::string encoded;
    const bool isWhole = nmsRecordWire::Encode(*this, encoded);
    try {
        s->WriteBytes(encoded.data(), static_cast<unsigned>(encoded.size()));
        return isWhole;
    } catch (xthrowable* failure) {
        const qel::caught held(failure);
        return false;
    }
}

bool nmsRecord::Receive(ioStream* s, const char* limitsKey)
{
    if (!qelIsObject(s))
        return false;
    nmsRecordReader reader(limitsOf(limitsKey));
    try {
        char piece[nmsRecordReader::maxPiece];
        while (const std::size_t wanted = reader.GetWanted())
            if (s->ReadBytes(piece, static_cast<unsigned>(wanted)) != wanted || !reader.Take(piece))
                break;
    } catch (xthrowable* failure) {
        const qel::caught held(failure);
    }
    nmsRecordWire::Take(*this, reader.record);
    return reader.IsWhole();
}
