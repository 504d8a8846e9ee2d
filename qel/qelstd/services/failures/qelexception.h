#pragma once

#include <iosfwd>

#include <qel/qelthrow.h>
#include <qel/xany.h>
#include <qel/xobject.h>
#include <qel/xstring.h>

// The framework's exceptions. Each is thrown as an `xthrowable*` by its static Throw; the catcher owns one
// reference to an exception of a countable class (all of these) and releases it with xrcrelease. An exception
// holds a reference to the object it carries: attach first, or a failing cast deletes a new object. Text
// arguments may be null.

/// In the body of an exception's class: an attribute of it that the constructor sets, and the accessor, `get`
/// followed by the attribute's name.
#define QEL_FIELD(type, Name) \
public:                       \
    type get##Name() const    \
    {                         \
        return Name;          \
    }                         \
                              \
private:                      \
    type Name

/// Defines the class T of a failure that adds nothing to those of the class Parent but its type: it is
/// constructed, and thrown by its Throw, with the arguments of Parent's constructor.
#define QEL_FAILURE(T, Parent)                         \
    class QEL_API T : public virtual Parent            \
    {                                                  \
        QEL_OBJECT(T);                                 \
                                                       \
    public:                                            \
        using Parent::Parent;                          \
        template<class... A>                           \
        [[noreturn]] static void Throw(A... arguments) \
        {                                              \
            qelThrowNew<self>(arguments...);           \
        }                                              \
    }

/// The base of the framework's exceptions.
///
///     try {
///         xintsequence::make({1, 2, 3})->get(7);
///     } catch (xthrowable* thrown) {
///         const qel::caught failure(thrown);
///         if (const auto* const range = failure.as<qelXInvalidSeqIndex>())
///             std::cerr << "no element " << range->getIndex() << '\n';
///     }
class QEL_API qelXException : public virtual xthrowable
{
    QEL_OBJECT(qelXException); // "qellib::XException"
    QEL_REBUILD(qelXException);
    /// Human-readable text of the failure. May be null.
    QEL_READONLY(xstring, Description);

protected:
    qelXException() = default;
    explicit qelXException(const char* description);

    /// Sets the description: a class sets its own text in its constructor's body, after its bases have set
    /// theirs.
    void describe(const char* text) { Description = text; }
};

/// An empty list of arguments, carried by qelXFunc.
class QEL_API qelXArgs : public virtual xobject
{
    QEL_OBJECT(qelXArgs); // "qellib::XArgs"
    QEL_REBUILD(qelXArgs);

public:
    qelXArgs() = default;
};

/// Names the library function in which a failure arose.
class QEL_API qelXFunc : public virtual xobject
{
    QEL_OBJECT(qelXFunc); // "qellib::XFunc"
    QEL_REBUILD(qelXFunc);
    QEL_READONLY(xstring, Name);
    QEL_READONLY(xrchandle<qelXArgs>, Args);

public:
    explicit qelXFunc(const char* name);
};

/// A failure inside a named library function.
class QEL_API qelXExternFunc : public virtual qelXException
{
    QEL_OBJECT(qelXExternFunc); // "qellib::XExternFunc"
    QEL_REBUILD(qelXExternFunc);
    /// May be a null handle.
    QEL_READONLY(xrchandle<qelXFunc>, Func);

public:
    qelXExternFunc(const char* description, qelXFunc* func);

protected:
    qelXExternFunc() = default;

    /// Sets the description and the function. The base of a library's exceptions calls it in its constructor's
    /// body, so that its subclasses need not initialize this class, a virtual base, themselves.
    void describe(const char* description, qelXFunc* func);
    /// Writes the first lines of every library's Print: the line of the description and the line of the
    /// function.
    void PrintHead(std::ostream& os) const;
    /// Writes one more line, such as `\t( Path: "..." )`. A null value prints nothing.
    static void PrintValue(std::ostream& os, const char* label, const xstring& value);
};

/// "Attempt to assign null to non-optional object"
class QEL_API qelXNull : public virtual qelXException
{
    QEL_OBJECT(qelXNull); // "qellib::XNull"
    QEL_REBUILD(qelXNull);

public:
    qelXNull();
    [[noreturn]] static void Throw();
};

/// "Object type mismatch"
class QEL_API qelXTypeMismatch : public virtual qelXException
{
    QEL_OBJECT(qelXTypeMismatch); // "qellib::XTypeMismatch"
    QEL_REBUILD(qelXTypeMismatch);
    /// The name of the type that was expected.
    QEL_READONLY(xstring, TypeName);
    /// The value of the other type.
    QEL_READONLY(xany, QelObject);

public:
    qelXTypeMismatch(const char* typeName, xany object);
    [[noreturn]] static void Throw(const char* typeName, xany object);
};

/// "Array index is out of range"
class QEL_API qelXInvalidArrayIndex : public virtual qelXException
{
    QEL_OBJECT(qelXInvalidArrayIndex); // "qellib::XInvalidArrayIndex"
    QEL_REBUILD(qelXInvalidArrayIndex);
    QEL_READONLY(xany, QelObject);
    QEL_READONLY(int, Dimension);
    QEL_READONLY(int, Index);

public:
    qelXInvalidArrayIndex(xany object, int dimension, int index);
    [[noreturn]] static void Throw(xany object, int dimension, int index);
};

/// "Sequence index is out of range"
class QEL_API qelXInvalidSeqIndex : public virtual qelXException
{
    QEL_OBJECT(qelXInvalidSeqIndex); // "qellib::XInvalidSeqIndex"
    QEL_REBUILD(qelXInvalidSeqIndex);
    QEL_READONLY(xany, QelObject);
    QEL_READONLY(int, Index);

public:
    qelXInvalidSeqIndex(xany object, int index);
    [[noreturn]] static void Throw(xany object, int index);
    /// The number of elements of the sequence when the failure arose; null when not known. No attribute.
    int getSize() const { return Size; }

private:
    int Size = xnullint;
};

/// "Dictionary index is out of range"
class QEL_API qelXInvalidDictIndex : public virtual qelXException
{
    QEL_OBJECT(qelXInvalidDictIndex); // "qellib::XInvalidDictIndex"
    QEL_REBUILD(qelXInvalidDictIndex);
    QEL_READONLY(xany, QelObject);
    QEL_READONLY(int, Index);

public:
    qelXInvalidDictIndex(xany object, int index);
    [[noreturn]] static void Throw(xany object, int index);
    /// The number of slots of the dictionary when the failure arose; null when not known. No attribute.
    int getSize() const { return Size; }

private:
    int Size = xnullint;
};

/// "Dictionary key is not found"
class QEL_API qelXInvalidDictKey : public virtual qelXException
{
    QEL_OBJECT(qelXInvalidDictKey); // "qellib::XInvalidDictKey"
    QEL_REBUILD(qelXInvalidDictKey);
    QEL_READONLY(xany, QelObject);
    QEL_READONLY(xstring, Key);

public:
    qelXInvalidDictKey(xany object, const char* key);
    [[noreturn]] static void Throw(xany object, const char* key);
};

/// "Negative index"
class QEL_API qelXNegativeIndex : public virtual qelXException
{
    QEL_OBJECT(qelXNegativeIndex); // "qellib::XNegativeIndex"
    QEL_REBUILD(qelXNegativeIndex);
    QEL_READONLY(int, Index);

public:
    explicit qelXNegativeIndex(int index);
    [[noreturn]] static void Throw(int index);
};

/// "Object is not initialized or has been destroyed"
class QEL_API qelXNotInitialized : public virtual qelXException
{
    QEL_OBJECT(qelXNotInitialized); // "qellib::XNotInitialized"
    QEL_REBUILD(qelXNotInitialized);

public:
    qelXNotInitialized();
    [[noreturn]] static void Throw();
};

/// "Object is reference countable"
class QEL_API qelXRefCountable : public virtual qelXException
{
    QEL_OBJECT(qelXRefCountable); // "qellib::XRefCountable"
    QEL_REBUILD(qelXRefCountable);
    QEL_READONLY(xany, QelObject);

public:
    explicit qelXRefCountable(xany object);
    [[noreturn]] static void Throw(xany object);
};

/// "Native exception": a failure that does not originate in the framework.
class QEL_API qelXNativeException : public virtual qelXException
{
    QEL_OBJECT(qelXNativeException); // "qellib::XNativeException"
    QEL_REBUILD(qelXNativeException);
    QEL_READONLY(xstring, StringRep);

public:
    explicit qelXNativeException(const char* text);
    [[noreturn]] static void Throw(const char* text);
};

/// "Attempt to communicate with client/server after connection has been closed"
class QEL_API qelXConnectionClosed : public virtual qelXException
{
    QEL_OBJECT(qelXConnectionClosed); // "qellib::XConnectionClosed"
    QEL_REBUILD(qelXConnectionClosed);

public:
    qelXConnectionClosed();
    [[noreturn]] static void Throw();
};

/// "SOAP exception"
class QEL_API qelXS11nException : public virtual qelXException
{
    QEL_OBJECT(qelXS11nException); // "qellib::XS11nException"
    QEL_REBUILD(qelXS11nException);

public:
    explicit qelXS11nException(const char* message);
    [[noreturn]] static void Throw(const char* message);

    virtual xstring getMessage();
    virtual void _s11n_setMessage(xstring value);

protected:
    qelXS11nException() = default;

private:
    xstring Message;
};

/// "SOAP Fault"
class QEL_API qelXSoapFault : public virtual qelXS11nException
{
    QEL_OBJECT(qelXSoapFault); // "qellib::XSoapFault"
    QEL_REBUILD(qelXSoapFault);

public:
    qelXSoapFault(const char* faultCode, const char* faultString, xany faultDetail);
    [[noreturn]] static void Throw(const char* faultCode, const char* faultString, xany faultDetail);

    /// Returns the text in the detail if it is a string, else the fault string unless it is empty, else the
    /// fault code.
    xstring getMessage() override;

    QEL_READONLY(xstring, FaultCode);
    QEL_READONLY(xstring, FaultString);
    QEL_READONLY(xany, FaultDetail);
};

/// Returns the text of `failure`, of any library's exception, for a message to people: what went wrong and, in
/// parentheses, with which object, as far as the failure knows it: "Sequence index is out of range (index 7,
/// size 3)". The registered name of its class stands for a missing text. The null string for null and xuninitobj.
QEL_API xstring qelTextOf(xthrowable* failure);

// ---- throwing

/// Constructs a T from the arguments and throws it: implements the Throw of every library.
template<class T, class... A>
[[noreturn]] void qelThrowNew(A&&... arguments)
{
    xthrow(xrcunihandle<xthrowable>(new (pDefMemMgr) T(static_cast<A&&>(arguments)...)));
}

/// Returns a new exception, not thrown, for a failure that does not originate in the framework.
QEL_API xrchandle<qelXNativeException> qelCreateNativeException(const char* text);
