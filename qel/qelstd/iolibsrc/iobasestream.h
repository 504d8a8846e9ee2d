#pragma once

#include <iosfwd>

#include <qel/base/btkatomic.h>
#include <qel/base/btkfd.h>
#include <qel/evtevent.h>
#include <qel/ioserializer.h>
#include <qel/xstring.h>

class ioEvent;
class ioStream;
class xstreambuf;

enum ioError : int {
    ioStreamState,
    ioInputNotAllowed,
    ioOutputNotAllowed,
    ioIncompatibleFormat,
    ioImproperFunction,
    ioUnsupportedFunction
};
QEL_ENUM(ioError); // "iolib::Error"

enum ioEventType : int { ioInputPending, ioOutputPending };
QEL_ENUM(ioEventType); // "iolib::EventType"

/// A share of what a stream, its events and its failures know of it: where it is while it lives. The last one
/// that shares it frees it.
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

    /// For the stream itself: makes the link when there is none yet.
    const ioStreamLink& To(ioStream* stream)
    {
        if (place == nullptr)
            place = new Place{stream};
        return *this;
    }
    /// For the stream itself, which goes.
    void Leave()
    {
        if (place != nullptr)
            place->stream = nullptr;
    }
    /// The stream, or null when it is gone.
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
/// block, change nothing and answer whether the value could be transferred now, so that an event loop can
/// wait for the stream's events when not.
///
/// While the state is not good (the end was read, a conversion failed, ...) every transfer throws
/// ioStreamState; setIsFail(false) makes it good again. A closed stream throws ioStreamState from everything
/// but Close, Flush(true) and the attributes that read its fields. Used by one thread at a time. Not counted:
/// freed with xdelete.
///
/// A concrete stream brings its buffer, and its destructor calls Release.
class QEL_API ioStream : public virtual xobject
{
    QEL_OBJECT(ioStream); // "iolib::Stream"

public:
    ioStream(const ioStream&) = delete;
    ioStream& operator=(const ioStream&) = delete;
    ~ioStream() override;

    // ---- try operations; ioNotSupported when the stream cannot tell

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
    ioTryCode TryWriteString(const char* s);
    /// A text that can never be written at once, because it is larger than a whole pipe, is ioNotSupported:
    /// WriteString writes it in parts.
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
    /// `delims`: what ends a string in the ASCII form (its first character; none given: the line feed).
    xstring ReadString(const char* delims);
    void WriteByte(int byte);
    void WriteInt(int v);
    void WriteBool(unsigned char b);
    void WriteReal(double d);
    /// Null and the reserved pointers write the empty text.
    void WriteString(const char* s);
    /// Raw bytes. Answers how many were read: `n`, or fewer before the end of the data or of the limit, which
    /// the state tells.
    unsigned int ReadBytes(void* p, unsigned int n);
    void WriteBytes(const void* p, unsigned int n);
    /// Copies all that remains in `src` into this stream, or in this stream into `dst`. See CopyStream.
    void ReadStream(ioStream* src);
    void WriteStream(ioStream* dst);
    /// Brings what is buffered to its destination. Answers null. Only `blocking` flushes are supported.
    ioEvent* Flush(unsigned char blocking);

    // ---- sizes: the number of bytes that a value takes in the stream's form

    int SizeOfByte(int byte);
    int SizeOf(int v);
    int SizeOf(unsigned char b);
    int SizeOf(bool b) { return SizeOf(static_cast<unsigned char>(b)); }
    int SizeOf(double d);
    int SizeOf(const char* s);

    // ---- state and settings

    /// Brings what was written to its destination and closes the stream for good. Closing twice does nothing.
    /// @throws ioXStream  ioStreamState: what was written to a file, or gathered for a pipe, cannot be
    /// brought
    ///                    there. The stream is closed all the same. A pipe without reader and a connection
    ///                    are no such failure.
    void Close();
    ioSerializer* getSerializer() { return serializer; }
    /// @throws ioXStream  ioImproperFunction once something has been transferred
    void setSerializer(ioSerializer* s);
    unsigned char getIsOpen() { return isOpen; }
    unsigned char getCanRead() { return canRead; }
    unsigned char getCanWrite() { return canWrite; }
    /// Seconds, or INFINITE. A stream whose buffer keeps limits (that of a connection) has each blocking
    /// operation wait so long at most for the next byte to come, or to go; it fails then with the state
    /// "timeout expired", and the part of a value that was transferred is lost. For all others the blocking
    /// operations of values work without limit only.
    double getITimeout() { return iTimeout; }
    double getOTimeout() { return oTimeout; }
    void setITimeout(double seconds);
    void setOTimeout(double seconds);
    unsigned char getIsEof() { return (state & stateEof) != 0; }
    unsigned char getIsFail() { return (state & stateFail) != 0; }
    unsigned char getIsBad() { return (state & stateBad) != 0; }
    unsigned char getIsGood() { return state == 0; }
    unsigned char getIsTimeout() { return (state & stateTimeout) != 0; }
    unsigned char getIsDataLost() { return (state & stateDataLost) != 0; }
    /// True adds the failure to the state; false makes the whole state good.
    void setIsFail(unsigned char fail);
    void setIsBad(unsigned char bad);
    /// Not supported: each throws ioUnsupportedFunction.
    unsigned char getIsBuffered();
    int getBufferSize();
    void setBufferSize(int size);
    unsigned char getWouldDataLost();
    void Ignore();

    // ---- the standard streams, made on first call, in ASCII form; not to be freed

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

    /// `buffer` stays the concrete stream's own, which destroys it in OnClose.
    ioStream(ioSerializer* form, xstreambuf* buffer, bool writable, bool readable);

    /// Adds to the state and throws ioStreamState.
    [[noreturn]] void ThrowState(int bits);
    [[noreturn]] void Throw(ioError error, const char* msg = "");
    /// A new event over `event`, of which it takes ownership.
    ioEvent* CreateEvent(btkBaseEvent* event, ioEventType type);

    /// Close for destructors: what cannot be brought to its destination is lost.
    void Release();

    /// GetInheritHandle for a stream whose buffer has the descriptor.
    btkHandle GetSettledHandle();

    // The guards: the open check, and what comes before reading and writing.
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

    /// The limits for streams that wait with one; meaningless while the timeout is INFINITE.
    btkTimeval GetITimeval() const { return iTimeval; }
    btkTimeval GetOTimeval() const { return oTimeval; }
    void ClearEofBit() { SetState(state & ~stateEof); }
    /// How many bytes a text may have that is read; a longer one is a conversion error. 65536 at least,
    /// without limit at first, but for connections.
    void SetTextLimit(std::size_t bytes);

private:
    friend class ioXStream;
    friend class ioEvent;
    friend class netThread; // waits for the handle
    friend class pcProcess; // prepares streams for a child, and gives it their handles
    friend class rshOutlet; // writes to the handle without waiting
    friend QEL_API void CopyStream(ioStream* to, ioStream* from);

    /// Releases what the concrete stream holds, its buffer at least. Called once.
    virtual void OnClose() = 0;
    /// The descriptor that a child process may inherit: what was written before stands before what the child
    /// writes, and the child reads what comes next here. It stays the stream's. -1: there is none, what was
    /// written cannot be brought to it, or what was read ahead cannot be given back.
    virtual btkHandle GetInheritHandle();
    /// Lets a child that inherits the standard streams go on where this process is with them, where that is
    /// possible.
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
    /// `bits`, or that the limit has passed, when that is why the last transfer failed.
    int WhyFailed(int bits) const;
    const char* StateText() const;
    template<class Transfer>
    ioTryCode TryRead(Transfer transfer);
    ioTryCode TryFindText(std::streambuf& view, const char* delims);
    ioTryCode TryPassText(std::streambuf& view);
    template<class Transfer>
    ioTryCode TryWrite(Transfer transfer);
    /// How the blocking operations transfer: with all guards, by the serializer's operations, or first of all
    /// right in the buffer, where the value is held or has room.
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
    template<auto write, class Value>
    [[gnu::visibility("hidden")]] void WriteNumber(Value value);
    template<class Value>
    bool ReadHeld(Value& value);
    template<class Value>
    bool WriteHeld(Value value);
    Way GetFormWay() const;
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
    // Never withGuards before all guards have let the first transfer through, and no longer than they would.
    Way readWay = withGuards;
    Way writeWay = withGuards;
    bool active = false; // something has been transferred
    bool isOpen = true;
    bool canRead;
    bool canWrite;
    bool keepsITimeout = true; // the buffer does, or there is none
    bool keepsOTimeout = true;
    double iTimeout = INFINITE;
    btkTimeval iTimeval;
    double oTimeout = INFINITE;
    btkTimeval oTimeval;
    int state = 0;
    /// The unread bytes in which TryReadString has found no delimiter, while the buffer is starved of more.
    struct Searched
    {
        std::size_t count = 0;
        char delimiter = 0;
        bool hasText = false; // not white space alone
    };
    Searched searched;
    ioStreamLink link; // shared with events and failures
};

/// Copies all that remains in `from`, byte by byte as it is, into `to`; of a file that is copied to itself,
/// what it held at the beginning. Nothing is flushed.
/// @throws ioXStream  of `from`: it cannot be read, reading failed, or it has another serializer; of `to`: it
///                    cannot be written
QEL_API void CopyStream(ioStream* to, ioStream* from);

/// A failure of a stream. Thrown as an `xthrowable*`; not counted: the catcher frees it with xdelete. It may
/// outlive its stream.
class QEL_API ioXStream : public virtual xthrowable
{
    QEL_OBJECT(ioXStream); // "iolib::XStream"

public:
    /// `msg` names the function, where the error is about one. The text is that of the stream's state now.
    ioXStream(ioStream* stream, ioError error, const char* msg);
    ~ioXStream() override;
    [[noreturn]] static void Throw(ioStream* stream, ioError error, const char* msg);

    /// The stream that failed, or null when it is gone.
    ioStream* getStream();
    ioError getError() { return error; }
    /// "Stream Error (iolib): " and what happened.
    xstring getMsg();

private:
    ioStreamLink stream;
    ioError error;
    xstring text;
};

/// An event of a stream.
class QEL_API ioEvent : public evtEvent
{
    QEL_OBJECT(ioEvent); // "iolib::Event"

public:
    /// The stream, or null when it is gone.
    ioStream* getStream();
    ioEventType getType() { return type; }

private:
    friend class ioStream;

    ioEvent(ioStream* owner, ioEventType kind, btkBaseEvent* base);

    ioStreamLink stream;
    ioEventType type;
};
