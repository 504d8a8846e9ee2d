#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <qel/base/baseexport.h>

// The wire form of the name service: the only code that writes and reads it. A client sends the number 100, a
// request code and, for some, a record; the response begins with a status byte. Numbers are 32 bits wide, the
// most significant byte first.

/// The port of the name server, unless the environment overrides it.
inline constexpr int nmsDefaultPort = 1239;
/// The number that begins every request, its size and that of the code after it.
inline constexpr int nmsFrameNumber = 100;
inline constexpr std::size_t nmsIntSize = 4;
inline constexpr std::size_t nmsFrameSize = nmsIntSize + 1;

/// The first byte of a request.
enum class nmsRequestCode : unsigned char {
    ping = 1,
    enter = 3, // register a record
    remove = 4,
    query = 5,
    shutdown = 6,
    version = 7
};

/// The result of a request.
enum nmscReturnCode : unsigned char {
    nmscDone = 0,
    nmscNoConnection = 2,
    nmscNotRecognized = 3,
    nmscExists = 4,
    nmscNotFound = 5,
    nmscNotAllowed = 6,
    nmscInternal = 8
};

/// Returns the line that reports a failure, without a line end. `fromServer`: the name server returned the
/// code; otherwise the client found the failure itself. `host` and `port` are shown when the server could not
/// be reached; port 0 is not shown.
BASE_API std::string nmsStatusText(int code, bool fromServer, const char* host, int port);

/// The field, and its value, with which a query is for the records of all machines whose name servers keep them
/// together. It is taken off before matching.
inline constexpr std::string_view nmsScopeField = "_Scope";
inline constexpr std::string_view nmsScopeAll = "all";

/// A record: named texts and the process that owns them.
struct BASE_API nmsFields
{
    std::uint32_t owner = 0; // process id; 0: none
    /// Names and values, in the order of the record.
    std::vector<std::pair<std::string, std::string>> fields;

    /// Returns the value of a field, or null.
    const std::string* Find(std::string_view name) const;
    /// Adds a field, or replaces the value of an existing one.
    void Set(std::string name, std::string value);
};

/// Limits of a record: number of fields, and bytes of a name and of a value with the terminating zero.
struct nmsLimits
{
    /// The greatest number, and sizes in bytes.
    unsigned fields = 256;
    unsigned nameSize = 256;
    unsigned valueSize = 256;
};

// ---- writing: each function appends to `to`

/// Four bytes, the most significant first.
BASE_API void nmsPutInt(std::string& to, int value);
/// One text of a field: `size` is its size in bytes with the terminating zero, `length` its length in
/// characters, which is the number of its bytes sent. False, with nothing written, when `size` is greater
/// than `limit`.
BASE_API bool nmsPutText(std::string& to, const char* text, unsigned size, unsigned length, unsigned limit);
/// False when a limit is exceeded: with nothing written if it is the number of fields, else with the fields
/// before the one that is too long written.
BASE_API bool nmsPutRecord(std::string& to, const nmsFields& record, const nmsLimits& limits = {});
/// The head of each request: the number of the protocol and the code.
BASE_API void nmsPutFrame(std::string& to, nmsRequestCode code);

// ---- reading

/// Returns the number in the first four bytes of `from`.
BASE_API int nmsGetInt(const char* from);

/// Incremental parser of a record, for any source of bytes:
///
///     while (reader.GetWanted() > 0)
///         if (!receive(buffer, reader.GetWanted()) || !reader.Take(buffer))
///             return false;
///
/// A piece is at most nmsRecordReader::maxPiece bytes long, so a size announced by the sender allocates no
/// memory before its bytes have arrived.
class BASE_API nmsRecordReader
{
public:
    /// The greatest result of GetWanted.
    static constexpr std::size_t maxPiece = 256;

    explicit nmsRecordReader(const nmsLimits& most = {});

    /// Returns the size of the next piece; 0 once the record is complete or refused.
    std::size_t GetWanted() const { return wanted; }
    /// Takes that many bytes. False when they are not part of a record within the limits.
    bool Take(const char* piece);
    /// Whether the record is complete.
    bool IsWhole() const { return part == whole; }

    /// The result so far: the owner and the fields.
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
