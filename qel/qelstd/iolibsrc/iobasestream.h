#pragma once

#include <concepts>
#include <cstddef>
#include <iosfwd>
#include <string_view> // std::data, std::size

#include <qel/base/btkatomic.h>
#include <qel/base/btkfd.h>
#include <qel/evtevent.h>
#include <qel/ioserializer.h>
#include <qel/qelduration.h>
#include <qel/xstring.h>

class ioEvent;
class ioStream;
class xstreambuf;

/// The kind of a failure of a stream.
enum ioError : int {
    ioStreamState,
    ioInputNotAllowed,
    ioOutputNotAllowed,
    ioIncompatibleFormat,
    ioImproperFunction,
    ioUnsupportedFunction
};
QEL_ENUM(ioError); // "iolib::Error"

/// Whether an event waits for input, or for room for output.
enum ioEventType : int { ioInputPending, ioOutputPending };
QEL_ENUM(ioEventType); // "iolib::EventType"

/// Whether A is an array of T in one piece.
template<class A, class T>
concept ioArrayOf = requires(A& a)
{
    {
        std::data(a)
        } -> std::convertible_to<T*>;
    std::size(a);
};

/// Reference-counted weak link to a stream; null once the stream is destroyed. The last holder frees it.
class ioStreamLink
{
public:
    ioStreamLink() = default;
    ioStreamLink(const ioStreamLink& other) noexcept : place(other.place)
    {
        if (place != nullptr)
            place->shares.Add(1);
    }
    ioStreamLink& operator=(const ioStreamLink&) = delete;
    ~ioStreamLink()
    {
        if (place != nullptr && place->shares.SubtractOrdered(1) == 1)
            delete place;
    }

    /// Called by the stream: makes the link if it does not exist yet.
    const ioStreamLink& To(ioStream* stream)
    {
        if (place == nullptr)
            place = new Place{stream};
        return *this;
    }
    /// Called by the stream's destructor.
    void Leave()
    {
        if (place != nullptr)
            place->stream = nullptr;
    }
    /// The stream, or null once it is destroyed.
    ioStream* Get() const { return place->stream; }

private:
    struct Place
    {
        ioStream* stream;
        btkAtomic<unsigned> shares = 1;
    };
    Place* place = nullptr;
};

/// A stream of typed values: bytes, ints, bools, reals and strings, in the byte form of its serializer. Two
/// families of operations: Read... and Write... block, and throw ioXStream for every failure; Try... never
/// block; they change nothing, and return whether the value could be transferred now. An event loop then
/// waits for the stream's events when it could not.
///
/// While the state is not good (the end was read, a conversion failed, ...) every transfer throws
/// ioStreamState; setIsFail(false) resets the state to good. A closed stream throws ioStreamState from
/// everything but Close, Flush(true) and the attributes that read its fields. Used by one thread at a time.
/// Not counted: freed with xdelete.
///
/// A concrete stream supplies its buffer, and its destructor calls Release.
///
///     void save(ioStream& to, int count, double sum)
///     {
///         to.WriteInt(count);
///         to.WriteReal(sum);
///         to.Flush(true); // throws ioXStream if it cannot be written
///     }
class QEL_API ioStream : public virtual xobject
{
    QEL_OBJECT(ioStream); // "iolib::Stream"
    QEL_NOT_COUNTED;

public:
    ioStream(const ioStream&) = delete;
    ioStream& operator=(const ioStream&) = delete;
    ~ioStream() override;

    // ---- try operations; ioNotSupported when the stream cannot determine it

    ioTryCode TryReadByte();
    ioTryCode TryReadInt();
    ioTryCode TryReadBool();
    ioTryCode TryReadReal();
    ioTryCode TryReadString(const char* delims);
    /// These send nothing: they test whether the value would be taken without blocking.
    ioTryCode TryWriteByte(int byte);
    ioTryCode TryWriteInt(int v);
    ioTryCode TryWriteBool(unsigned char b);
    ioTryCode TryWriteReal(double d);
    /// ioNotSupported for a text larger than a whole pipe, which can never be written at once: WriteString
    /// writes it in parts.
    ioTryCode TryWriteString(const char* s);
    template<qelTextObject T>
    ioTryCode TryWriteString(const T& text)
    {
        return TryWriteString(qelTextArgument(text));
    }
    /// The number of bytes that can be read without blocking; 0 also at the end.
    unsigned int PeekNBytes();
    /// A new event for data to read, or for room to write; null when the stream has none. The caller owns it;
    /// it may outlive the stream, and is signaled then.
    ioEvent* InputEvent();
    ioEvent* OutputEvent();

    // ---- blocking operations

    /// The byte as a signed value.
    int ReadByte();
    int ReadInt();
    unsigned char ReadBool();
    double ReadReal();
    /// `delims`: its first character ends a string in the ASCII form; without one the line feed does.
    xstring ReadString(const char* delims);
    void WriteByte(int byte);
    void WriteInt(int v);
    void WriteBool(unsigned char b);
    void WriteReal(double d);
    /// Null and the reserved pointers write the empty text.
    void WriteString(const char* s);
    template<qelTextObject T>
    void WriteString(const T& text)
    {
        WriteString(qelTextArgument(text));
    }
    /// All values of the array, as so many calls of the operation for one value, several times faster in a
    /// binary form. A timeout applies to the whole call. When a read throws, some of `to` may be set.
    /// The array: a std::span, std::vector, std::array or an array of the language.
    template<ioArrayOf<int> A>
    void ReadInts(A&& to)
    {
        ReadInts(std::data(to), std::size(to));
    }
    template<ioArrayOf<double> A>
    void ReadReals(A&& to)
    {
        ReadReals(std::data(to), std::size(to));
    }
    template<ioArrayOf<const int> A>
    void WriteInts(const A& values)
    {
        WriteInts(std::data(values), std::size(values));
    }
    template<ioArrayOf<const double> A>
    void WriteReals(const A& values)
    {
        WriteReals(std::data(values), std::size(values));
    }
    void ReadInts(int* to, std::size_t count);
    void ReadReals(double* to, std::size_t count);
    void WriteInts(const int* values, std::size_t count);
    void WriteReals(const double* values, std::size_t count);
    /// Raw bytes. Returns how many were read: `n`, or fewer when the data ended or the limit expired, as the
    /// state shows.
    unsigned int ReadBytes(void* p, unsigned int n);
    void WriteBytes(const void* p, unsigned int n);
    /// Copies all that remains in `src` into this stream, or in this stream into `dst`. See CopyStream.
    void ReadStream(ioStream* src);
    void WriteStream(ioStream* dst);
    /// Writes the buffered data to its destination. Returns null. Only `blocking` flushes are supported.
    ioEvent* Flush(unsigned char blocking);

    // ---- sizes: the number of bytes that a value takes in the stream's form

    int SizeOfByte(int byte);
    int SizeOf(int v);
    int SizeOf(unsigned char b);
    int SizeOf(bool b) { return SizeOf(static_cast<unsigned char>(b)); }
    int SizeOf(double d);
    int SizeOf(const char* s);

    // ---- state and settings

    /// Flushes and closes the stream for good. Closing twice does nothing.
    /// @throws ioXStream  ioStreamState: data written to a file, or gathered for a pipe, cannot be flushed.
    ///                    The stream is closed nevertheless. A pipe without reader and a connection do not
    ///                    throw.
    void Close();
    ioSerializer* getSerializer() { return serializer; }
    /// @throws ioXStream  ioImproperFunction once something has been transferred
    void setSerializer(ioSerializer* s);
    unsigned char getIsOpen() { return isOpen; }
    unsigned char getCanRead() { return canRead; }
    unsigned char getCanWrite() { return canWrite; }
    /// Seconds, or INFINITE. A stream whose buffer supports timeouts (that of a connection) applies the
    /// timeout to each blocking operation: it waits at most that long for the next byte to be received or
    /// sent, then fails with the state "timeout expired", and the transferred part of a value is lost. With
    /// any other stream the blocking operations of values work without limit only.
    double getITimeout() { return iTimeout; }
    double getOTimeout() { return oTimeout; }
    void setITimeout(double seconds);
    template<qelDuration D>
    void setITimeout(const D& limit)
    {
        return setITimeout(qelSeconds(limit));
    }
    void setOTimeout(double seconds);
    template<qelDuration D>
    void setOTimeout(const D& limit)
    {
        return setOTimeout(qelSeconds(limit));
    }
    unsigned char getIsEof() { return (state & stateEof) != 0; }
    unsigned char getIsFail() { return (state & stateFail) != 0; }
    unsigned char getIsBad() { return (state & stateBad) != 0; }
    unsigned char getIsGood() { return state == 0; }
    unsigned char getIsTimeout() { return (state & stateTimeout) != 0; }
    unsigned char getIsDataLost() { return (state & stateDataLost) != 0; }
    /// True adds the failure to the state; false resets the whole state to good.
    void setIsFail(unsigned char fail);
    void setIsBad(unsigned char bad);
    /// Not supported: each throws ioUnsupportedFunction.
    unsigned char getIsBuffered();
    int getBufferSize();
    void setBufferSize(int size);
    unsigned char getWouldDataLost();
    void Ignore();

    // ---- the standard streams, created on first call, in ASCII form; not to be freed

    static ioStream* getStdin();
    static ioStream* getStdout();
    static ioStream* getStderr();
    /// Not supported: each ends the process with the fatal report.
    static void setStdin(ioStream* stream);
    static void setStdout(ioStream* stream);
    static void setStderr(ioStream* stream);

protected:
    /// The bits of the state.
    enum State {
        stateEof = 0x01,
        stateFail = 0x02, // a conversion failed
        stateBad = 0x04,  // an I/O error
        stateTimeout = 0x08,
        stateDataLost = 0x10
    };

    /// The concrete stream owns `buffer` and destroys it in OnClose.
    ioStream(ioSerializer* form, xstreambuf* buffer, bool writable, bool readable);

    /// Adds to the state and throws ioStreamState.
    [[noreturn]] void ThrowState(int bits);
    [[noreturn]] void Throw(ioError error, const char* msg = "");
    /// A new event that wraps `event` and takes ownership of it.
    ioEvent* CreateEvent(btkBaseEvent* event, ioEventType type);

    /// Close for destructors: data that cannot be flushed is lost.
    void Release();

    /// GetInheritHandle for a stream whose buffer holds the descriptor.
    btkHandle GetSettledHandle();

    // The guards: the open check, and the checks before reading and writing.
    void CheckOpen()
    {
        if (!isOpen)
            Throw(ioStreamState);
    }
    void CheckReadable()
    {
        if (!isOpen || state != 0 || !canRead)
            ThrowGuard(ioInputNotAllowed);
    }
    void CheckWritable()
    {
        if (!isOpen || state != 0 || !canWrite)
            ThrowGuard(ioOutputNotAllowed);
    }

    /// The limits for streams that support timeouts; meaningless while the timeout is INFINITE.
    btkTimeval GetITimeval() const { return iTimeval; }
    btkTimeval GetOTimeval() const { return oTimeval; }
    void ClearEofBit() { SetState(state & ~stateEof); }
    /// The longest text that is read, in bytes; a longer one is a conversion error. At least 65536. Initially
    /// unlimited, except for connections.
    void SetTextLimit(std::size_t bytes);

private:
    friend class ioXStream;
    friend class ioEvent;
    friend class netThread; // waits for the handle
    friend class pcProcess; // prepares streams for a child, and passes their handles on
    friend class rshOutlet; // writes to the handle without waiting
    friend QEL_API void CopyStream(ioStream* to, ioStream* from);

    /// Releases the concrete stream's resources, at least its buffer. Called once.
    virtual void OnClose() = 0;
    /// The descriptor that a child process may inherit: data already written precedes the child's output, and
    /// the child reads the bytes that come next here. The stream keeps ownership. -1: there is none, written
    /// data cannot be flushed to it, or bytes read ahead cannot be given back.
    virtual btkHandle GetInheritHandle();
    /// Lets a child that inherits the standard streams continue at this process's position in them, where
    /// that is possible.
    static void SettleStandardStreams();
    virtual void SetTextMode();
    virtual void SetBinaryMode();

    [[noreturn]] void ThrowGuard(ioError denied);
    void CheckTryCode(ioTryCode code)
    {
        if (code > ioWouldBlock)
            ThrowTryCode(code);
    }
    [[noreturn]] void ThrowTryCode(ioTryCode code);
    /// `bits`, or the timeout bit when the last transfer failed because its limit expired.
    int WhyFailed(int bits) const;
    const char* StateText() const;
    template<class Transfer>
    ioTryCode TryRead(Transfer transfer);
    ioTryCode TryFindText(std::streambuf& view, const char* delims);
    ioTryCode TryPassText(std::streambuf& view);
    template<class Transfer>
    ioTryCode TryWrite(Transfer transfer);
    /// How the blocking operations transfer: with all guards, by the serializer alone, or in the buffer first
    /// (Held).
    enum Way : unsigned char { withGuards, bySerializer, asText, asNative, asNetwork };

    void BeginRead()
    {
        if (readWay == withGuards)
            GuardRead();
    }
    void BeginWrite()
    {
        if (writeWay == withGuards)
            GuardWrite();
    }
    void GuardRead();
    void GuardWrite();
    template<auto read, class Value, class... Delims>
    [[gnu::visibility("hidden")]] Value ReadByForm(Delims... delims);
    template<auto write, class Value>
    [[gnu::visibility("hidden")]] void WriteByForm(Value value);
    template<class Value>
    [[gnu::visibility("hidden")]] void ReadAll(Value* to, std::size_t count);
    template<class Value>
    [[gnu::visibility("hidden")]] void WriteAll(const Value* values, std::size_t count);
    struct Held;
    void FindWays();
    void SetState(int bits)
    {
        state = bits;
        FindWays();
    }
    void SetActive()
    {
        if (!active) {
            active = true;
            FindWays();
        }
    }

    ioSerializer* serializer = nullptr; // shared
    xstreambuf* streamBuf;
    std::streambuf* direct; // the same, as the serializers see it
    // withGuards until all guards have let the first transfer pass, and again as soon as one of them would
    // refuse.
    Way readWay = withGuards;
    Way writeWay = withGuards;
    bool active = false; // something has been transferred
    bool isOpen = true;
    bool canRead;
    bool canWrite;
    bool keepsITimeout = true; // the buffer supports it, or there is no limit
    bool keepsOTimeout = true;
    double iTimeout = INFINITE;
    btkTimeval iTimeval;
    double oTimeout = INFINITE;
    btkTimeval oTimeval;
    int state = 0;
    /// The unread bytes that TryReadString has already searched for a delimiter; its next call continues
    /// behind them.
    struct Searched
    {
        std::size_t count = 0;
        char delimiter = 0;
        bool hasText = false; // not white space alone
    };
    Searched searched;
    ioStreamLink link; // shared with events and failures
};

/// Copies all that remains in `from` unchanged into `to`. A file that is copied to itself contributes its
/// initial content only. Nothing is flushed.
/// @throws ioXStream  of `from`: it cannot be read, reading failed, or it has another serializer; of `to`: it
///                    cannot be written
QEL_API void CopyStream(ioStream* to, ioStream* from);

/// A failure of a stream. Thrown as an `xthrowable*`; not counted: the catcher frees it with xdelete. It may
/// outlive its stream.
///
///     try {
///         stream.ReadInt();
///     } catch (xthrowable* thrown) {
///         const qel::caught failure(thrown);
///         const auto* const cause = failure.as<ioXStream>();
///         if (cause == nullptr || !stream.getIsEof())
///             std::cerr << failure.what() << '\n';
///     }
class QEL_API ioXStream : public virtual xthrowable
{
    QEL_OBJECT(ioXStream); // "iolib::XStream"
    QEL_NOT_COUNTED;

public:
    /// `msg` names the function if the error concerns one. The text describes the stream's current state.
    ioXStream(ioStream* stream, ioError error, const char* msg);
    ~ioXStream() override;
    [[noreturn]] static void Throw(ioStream* stream, ioError error, const char* msg);

    /// The stream that failed, or null once it is destroyed.
    ioStream* getStream();
    ioError getError() { return error; }
    /// "Stream Error (iolib): " and a description of the failure.
    xstring getMsg();

private:
    ioStreamLink stream;
    ioError error;
    xstring text;
};

/// An event of a stream.
///
///     const auto input = qel::own(stream.InputEvent());
///     while (input->Wait(INFINITE) && stream.TryReadInt() == ioWouldBlock) {
///         // only a part of the value has arrived
///     }
class QEL_API ioEvent : public evtEvent
{
    QEL_OBJECT(ioEvent); // "iolib::Event"

public:
    /// The stream, or null once it is destroyed.
    ioStream* getStream();
    ioEventType getType() { return type; }

private:
    friend class ioStream;

    ioEvent(ioStream* owner, ioEventType kind, btkBaseEvent* base);

    ioStreamLink stream;
    ioEventType type;
};
