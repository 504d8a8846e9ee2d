#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <qel/base/baseexport.h>

// The wire form of the name service: the one place where it is written and read. A client sends the number
// 100, a request code and, for some, a record; the answer begins with a status byte. Numbers are 32 bits
// wide, the most significant byte first.

/// The port of the name server, unless the environment says otherwise.
inline constexpr int nmsDefaultPort = 1239;
/// The number with which every request begins, its size and that of the code behind it.
inline constexpr int nmsFrameNumber = 100;
inline constexpr std::size_t nmsIntSize = 4;
inline constexpr std::size_t nmsFrameSize = nmsIntSize + 1;

enum class nmsRequestCode : unsigned char {
    ping = 1,
    enter = 3, // register a record
    remove = 4,
    query = 5,
    shutdown = 6,
    version = 7
};

/// How a request ended.
enum nmscReturnCode : unsigned char {
    nmscDone = 0,
    nmscNoConnection = 2,
    nmscNotRecognized = 3,
    nmscExists = 4,
    nmscNotFound = 5,
    nmscNotAllowed = 6,
    nmscInternal = 8
};

/// The line that reports a failure, without its end. `fromServer`: the name server answered with the code;
/// otherwise the client found the failure itself. `host` and `port` are shown when it could not be reached;
/// port 0 is not.
BASE_API std::string nmsStatusText(int code, bool fromServer, const char* host, int port);

/// A record: named texts and the process that they belong to.
struct BASE_API nmsFields
{
    std::uint32_t owner = 0; // process id; 0: none
    std::vector<std::pair<std::string, std::string>> fields;

    /// The value of a field, or null.
    const std::string* Find(std::string_view name) const;
    /// Adds a field, or replaces the value of the one of that name.
    void Set(std::string name, std::string value);
};

/// The most that a record may have: fields, and bytes of a name and of a value with the ending zero.
struct nmsLimits
{
    unsigned fields = 256;
    unsigned nameSize = 256;
    unsigned valueSize = 256;
};

// ---- writing: each adds to the end of `to`

BASE_API void nmsPutInt(std::string& to, int value);
/// One text of a field: `size` is its size in bytes with the ending zero, `length` its length in characters,
/// which is how many bytes of it are sent. False, with nothing written, when `size` is greater than `limit`.
BASE_API bool nmsPutText(std::string& to, const char* text, unsigned size, unsigned length, unsigned limit);
/// False when a limit is exceeded: before anything is written when it is the number of fields, else with the
/// fields before the one that is too long written.
BASE_API bool nmsPutRecord(std::string& to, const nmsFields& record, const nmsLimits& limits = {});
BASE_API void nmsPutFrame(std::string& to, nmsRequestCode code);

// ---- reading

/// The number in the first four bytes of `from`.
BASE_API int nmsGetInt(const char* from);

/// Reads a record piece by piece, from whatever brings the bytes:
///
///     while (reader.GetWanted() > 0)
///         if (!receive(buffer, reader.GetWanted()) || !reader.Take(buffer))
///             return false;
///
/// A piece is at most nmsRecordReader::maxPiece bytes long, so nothing that the sender announces costs
/// memory before it has come.
class BASE_API nmsRecordReader
{
public:
    static constexpr std::size_t maxPiece = 256;

    explicit nmsRecordReader(const nmsLimits& most = {});

    /// How many bytes the next piece has; 0 once the record is whole or refused.
    std::size_t GetWanted() const { return wanted; }
    /// Takes that many bytes. False when they are no part of a record within the limits.
    bool Take(const char* piece);
    bool IsWhole() const { return part == whole; }

    /// What has been read: the owner and the fields so far.
    nmsFields record;

private:
    enum Part : unsigned char { head, nameSizes, name, valueSizes, value, whole, refused };

    bool Refuse();
    bool Begin(Part next, std::size_t size);
    bool TakeSizes(const char* piece, Part next, unsigned limit);
    bool TakeText(const char* piece);

    nmsLimits limits;
    Part part = head;
    std::size_t wanted = 2 * nmsIntSize;
    unsigned fieldsLeft = 0;
    std::string fieldName;
};
