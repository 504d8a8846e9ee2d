#pragma once

#include <iosfwd>

#include <qel/xobject.h>

class xstring;

/// The result of a transfer that does not throw.
enum ioTryCode : int { ioSuccess, ioWouldBlock, ioEndOfFile, ioIOError, ioFormatError, ioNotSupported };
QEL_ENUM(ioTryCode); // "iolib::TryCode"

/// The byte form of the values that a stream carries. Three forms exist, each as one shared stateless object,
/// which lives as long as the process and is safe to use from any thread. No form marks kinds or separates
/// values: reader and writer agree on the sequence of kinds. Values pass unchanged, reserved ones too.
///
/// Streams call the operations. These return codes and throw nothing but std::bad_alloc; a read that reaches
/// the end of the data within a value has consumed the bytes it read.
///
///     const auto memory = qel::own(ioStringStream::Create(xnullstr));
///     memory->setSerializer(ioSerializer::getXDR()); // before the first value
///     memory->WriteInt(1);                           // 00 00 00 01
class QEL_API ioSerializer : public virtual xobject
{
    QEL_OBJECT(ioSerializer); // "iolib::Serializer", not counted

public:
    /// Text: decimal numbers, "T" and "F". Reading skips white space first.
    static ioSerializer* getAscii();
    /// The machine's own representation.
    static ioSerializer* getBinary();
    /// Big-endian: for files and connections shared with other machines.
    static ioSerializer* getXDR();

protected:
    explicit ioSerializer(int binary) : isBinary(binary) {}

    /// The number of bytes read, less than `n` only at the end of the data.
    virtual unsigned int RdBytes(void* p, unsigned int n, std::streambuf* sb) = 0;
    virtual ioTryCode WrBytes(const void* p, unsigned int n, std::streambuf* sb) = 0;
    virtual ioTryCode RdByte(char& c, std::streambuf* sb) = 0;
    virtual ioTryCode WrByte(char c, std::streambuf* sb) = 0;
    /// Each Sz returns the number of bytes that the value takes; xnullint when an int cannot hold that.
    virtual int SzByte(char c) = 0;
    virtual ioTryCode RdInt(int& v, std::streambuf* sb) = 0;
    virtual ioTryCode WrInt(int v, std::streambuf* sb) = 0;
    virtual int SzInt(int v) = 0;
    virtual ioTryCode RdBool(unsigned char& b, std::streambuf* sb) = 0;
    virtual ioTryCode WrBool(unsigned char b, std::streambuf* sb) = 0;
    virtual int SzBool(unsigned char b) = 0;
    virtual ioTryCode RdReal(double& d, std::streambuf* sb) = 0;
    virtual ioTryCode WrReal(double d, std::streambuf* sb) = 0;
    virtual int SzReal(double d) = 0;
    /// `s` is unchanged unless ioSuccess is returned. A string ends at its first zero byte; bytes sent behind
    /// that are consumed.
    virtual ioTryCode RdString(xstring& s, std::streambuf* sb, const char* delims) = 0;
    /// Null and the reserved pointers write the empty text.
    virtual ioTryCode WrString(const char* s, std::streambuf* sb) = 0;
    virtual int SzString(const char* s) = 0;

private:
    friend class ioStream;

    /// Identifies the shared serializers, whose values a stream transfers in its buffer itself.
    enum Form : unsigned char { otherForm, textForm, nativeForm, networkForm };
    static ioSerializer* Share(ioSerializer* made, Form known);

    int isBinary; // 0: text
    Form form = otherForm;
};

/// Raw bytes, and strings as an int with the number of bytes, in the form's own representation, followed by
/// the bytes.
class QEL_API ioByteSerializer : public ioSerializer
{
protected:
    using ioSerializer::ioSerializer;

    unsigned int RdBytes(void* p, unsigned int n, std::streambuf* sb) override;
    ioTryCode WrBytes(const void* p, unsigned int n, std::streambuf* sb) override;
    ioTryCode RdByte(char& c, std::streambuf* sb) override;
    ioTryCode WrByte(char c, std::streambuf* sb) override;
    int SzByte(char c) override;
    /// A negative length is a format error. Memory use stays proportional to the bytes that have arrived.
    ioTryCode RdString(xstring& s, std::streambuf* sb, const char* delims) override;
    /// A text whose length does not fit an int is a format error; nothing is written.
    ioTryCode WrString(const char* s, std::streambuf* sb) override;
    int SzString(const char* s) override;
};

/// The text form. It writes and accepts the same text as a default-configured standard stream in the classic
/// locale. A real has six significant digits. A number that ends with the input counts as read.
class QEL_API ioAsciiSerializer : public ioByteSerializer
{
public:
    ioAsciiSerializer() : ioByteSerializer(0) {}

protected:
    ioTryCode RdByte(char& c, std::streambuf* sb) override;
    ioTryCode WrByte(char c, std::streambuf* sb) override;
    int SzByte(char c) override;
    ioTryCode RdInt(int& v, std::streambuf* sb) override;
    ioTryCode WrInt(int v, std::streambuf* sb) override;
    int SzInt(int v) override;
    ioTryCode RdBool(unsigned char& b, std::streambuf* sb) override;
    ioTryCode WrBool(unsigned char b, std::streambuf* sb) override;
    int SzBool(unsigned char b) override;
    ioTryCode RdReal(double& d, std::streambuf* sb) override;
    ioTryCode WrReal(double d, std::streambuf* sb) override;
    int SzReal(double d) override;
    /// Reads up to the first character of `delims`, or the line feed when there is none; the delimiter stays
    /// in the input. An empty text is a format error.
    ioTryCode RdString(xstring& s, std::streambuf* sb, const char* delims) override;
    ioTryCode WrString(const char* s, std::streambuf* sb) override;
    int SzString(const char* s) override;
};

/// The machine's own form: a bool is one byte, an int four, a real eight.
class QEL_API ioBinarySerializer : public ioByteSerializer
{
public:
    ioBinarySerializer() : ioByteSerializer(1) {}

protected:
    ioTryCode RdInt(int& v, std::streambuf* sb) override;
    ioTryCode WrInt(int v, std::streambuf* sb) override;
    int SzInt(int v) override;
    ioTryCode RdBool(unsigned char& b, std::streambuf* sb) override;
    ioTryCode WrBool(unsigned char b, std::streambuf* sb) override;
    int SzBool(unsigned char b) override;
    ioTryCode RdReal(double& d, std::streambuf* sb) override;
    ioTryCode WrReal(double d, std::streambuf* sb) override;
    int SzReal(double d) override;
};

/// The network form: an int is four bytes and a real eight, the most significant first; a bool is written as
/// an int, and the low byte counts on reading. Strings are not padded.
class QEL_API ioXDRSerializer : public ioByteSerializer
{
public:
    ioXDRSerializer() : ioByteSerializer(1) {}

protected:
    ioTryCode RdInt(int& v, std::streambuf* sb) override;
    ioTryCode WrInt(int v, std::streambuf* sb) override;
    int SzInt(int v) override;
    ioTryCode RdBool(unsigned char& b, std::streambuf* sb) override;
    ioTryCode WrBool(unsigned char b, std::streambuf* sb) override;
    int SzBool(unsigned char b) override;
    ioTryCode RdReal(double& d, std::streambuf* sb) override;
    ioTryCode WrReal(double d, std::streambuf* sb) override;
    int SzReal(double d) override;
};
