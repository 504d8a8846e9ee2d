#include "qelexception.h"

#include <ostream>

#include "qeltable.h"

// ---- tables

constinit qelClass qelXException::rtti = {
    .name = "qellib::XException",
    .counted = true,
    .attrs = {QEL_ATTR(Description, qelOptional)},
    .rebuild = &qelRebuildOf<self>,
};

constinit qelClass qelXArgs::rtti = {
    .name = "qellib::XArgs",
    .counted = true,
    .rebuild = &qelRebuildOf<self>,
};

constinit qelClass qelXFunc::rtti = {
    .name = "qellib::XFunc",
    .counted = true,
    .attrs = {QEL_ATTR(Name), QEL_ATTR(Args)},
    .rebuild = &qelRebuildOf<self>,
};

constinit qelClass qelXExternFunc::rtti = {
    .name = "qellib::XExternFunc",
    .counted = true,
    .parents = {QEL_PARENT(qelXException)},
    .attrs = {QEL_ATTR(Func)},
    .rebuild = &qelRebuildOf<self>,
};

constinit qelClass qelXNull::rtti = {
    .name = "qellib::XNull",
    .counted = true,
    .parents = {QEL_PARENT(qelXException)},
    .rebuild = &qelRebuildOf<self>,
};

constinit qelClass qelXTypeMismatch::rtti = {
    .name = "qellib::XTypeMismatch",
    .counted = true,
    .parents = {QEL_PARENT(qelXException)},
    .attrs = {QEL_ATTR(TypeName), QEL_ATTR(QelObject)},
    .rebuild = &qelRebuildOf<self>,
};

constinit qelClass qelXInvalidArrayIndex::rtti = {
    .name = "qellib::XInvalidArrayIndex",
    .counted = true,
    .parents = {QEL_PARENT(qelXException)},
    .attrs = {QEL_ATTR(QelObject), QEL_ATTR(Dimension), QEL_ATTR(Index)},
    .rebuild = &qelRebuildOf<self>,
};

constinit qelClass qelXInvalidSeqIndex::rtti = {
    .name = "qellib::XInvalidSeqIndex",
    .counted = true,
    .parents = {QEL_PARENT(qelXException)},
    .attrs = {QEL_ATTR(QelObject), QEL_ATTR(Index)},
    .rebuild = &qelRebuildOf<self>,
};

constinit qelClass qelXInvalidDictIndex::rtti = {
    .name = "qellib::XInvalidDictIndex",
    .counted = true,
    .parents = {QEL_PARENT(qelXException)},
    .attrs = {QEL_ATTR(QelObject), QEL_ATTR(Index)},
    .rebuild = &qelRebuildOf<self>,
};

constinit qelClass qelXInvalidDictKey::rtti = {
    .name = "qellib::XInvalidDictKey",
    .counted = true,
    .parents = {QEL_PARENT(qelXException)},
    .attrs = {QEL_ATTR(QelObject), QEL_ATTR(Key)},
    .rebuild = &qelRebuildOf<self>,
};

constinit qelClass qelXNegativeIndex::rtti = {
    .name = "qellib::XNegativeIndex",
    .counted = true,
    .parents = {QEL_PARENT(qelXException)},
    .attrs = {QEL_ATTR(Index)},
    .rebuild = &qelRebuildOf<self>,
};

constinit qelClass qelXNotInitialized::rtti = {
    .name = "qellib::XNotInitialized",
    .counted = true,
    .parents = {QEL_PARENT(qelXException)},
    .rebuild = &qelRebuildOf<self>,
};

constinit qelClass qelXRefCountable::rtti = {
    .name = "qellib::XRefCountable",
    .counted = true,
    .parents = {QEL_PARENT(qelXException)},
    .attrs = {QEL_ATTR(QelObject)},
    .rebuild = &qelRebuildOf<self>,
};

constinit qelClass qelXNativeException::rtti = {
    .name = "qellib::XNativeException",
    .counted = true,
    .parents = {QEL_PARENT(qelXException)},
    .attrs = {QEL_ATTR(StringRep)},
    .rebuild = &qelRebuildOf<self>,
};

constinit qelClass qelXConnectionClosed::rtti = {
    .name = "qellib::XConnectionClosed",
    .counted = true,
    .parents = {QEL_PARENT(qelXException)},
    .rebuild = &qelRebuildOf<self>,
};

constinit qelClass qelXS11nException::rtti = {
    .name = "qellib::XS11nException",
    .counted = true,
    .parents = {QEL_PARENT(qelXException)},
    .attrs = {QEL_ATTR(Message)},
    .rebuild = &qelRebuildOf<self>,
};

constinit qelClass qelXSoapFault::rtti = {
    .name = "qellib::XSoapFault",
    .counted = true,
    .parents = {QEL_PARENT(qelXS11nException)},
    .attrs = {QEL_ATTR(FaultCode, qelOptional), QEL_ATTR(FaultString, qelOptional),
              QEL_ATTR(FaultDetail, qelOptional)},
    .rebuild = &qelRebuildOf<self>,
};

// ---- construction and throwing

qelXException::qelXException(const char* description) : Description(description)
{
}

qelXFunc::qelXFunc(const char* name) : Name(name), Args(new (pDefMemMgr) qelXArgs)
{
}

qelXExternFunc::qelXExternFunc(const char* description, qelXFunc* func) : Func(func)
{
    describe(description);
}

void qelXExternFunc::PrintHead(std::ostream& os) const
{
    os << "Exception: \"" << getDescription() << "\"" << std::endl;
    const xrchandle<qelXFunc> func = getFunc();
    os << "\tin function \"" << (func ? func->getName() : xstring()) << "\"" << std::endl;
}

void qelXExternFunc::PrintValue(std::ostream& os, const char* label, const xstring& value)
{
    if (value != nullptr)
        os << "\t( " << label << ": \"" << value << "\" )" << std::endl;
}

qelXNull::qelXNull()
{
    describe("Attempt to assign null to non-optional object");
}

void qelXNull::Throw()
{
    qelThrowNew<qelXNull>();
}

qelXTypeMismatch::qelXTypeMismatch(const char* typeName, xany object) : TypeName(typeName), QelObject(object)
{
    describe("Object type mismatch");
}

void qelXTypeMismatch::Throw(const char* typeName, xany object)
{
    qelThrowNew<qelXTypeMismatch>(typeName, object);
}

qelXInvalidArrayIndex::qelXInvalidArrayIndex(xany object, int dimension, int index)
    : QelObject(object), Dimension(dimension), Index(index)
{
    describe("Array index is out of range");
}

void qelXInvalidArrayIndex::Throw(xany object, int dimension, int index)
{
    qelThrowNew<qelXInvalidArrayIndex>(object, dimension, index);
}

qelXInvalidSeqIndex::qelXInvalidSeqIndex(xany object, int index) : QelObject(object), Index(index)
{
    describe("Sequence index is out of range");
}

void qelXInvalidSeqIndex::Throw(xany object, int index)
{
    qelThrowNew<qelXInvalidSeqIndex>(object, index);
}

qelXInvalidDictIndex::qelXInvalidDictIndex(xany object, int index) : QelObject(object), Index(index)
{
    describe("Dictionary index is out of range");
}

void qelXInvalidDictIndex::Throw(xany object, int index)
{
    qelThrowNew<qelXInvalidDictIndex>(object, index);
}

qelXInvalidDictKey::qelXInvalidDictKey(xany object, const char* key) : QelObject(object), Key(key)
{
    describe("Dictionary key is not found");
}

void qelXInvalidDictKey::Throw(xany object, const char* key)
{
    qelThrowNew<qelXInvalidDictKey>(object, key);
}

qelXNegativeIndex::qelXNegativeIndex(int index) : Index(index)
{
    describe("Negative index");
}

void qelXNegativeIndex::Throw(int index)
{
    qelThrowNew<qelXNegativeIndex>(index);
}

qelXNotInitialized::qelXNotInitialized()
{
    describe("Object is not initialized or has been destroyed");
}

void qelXNotInitialized::Throw()
{
    qelThrowNew<qelXNotInitialized>();
}

qelXRefCountable::qelXRefCountable(xany object) : QelObject(object)
{
    describe("Object is reference countable");
}

void qelXRefCountable::Throw(xany object)
{
    qelThrowNew<qelXRefCountable>(object);
}

qelXNativeException::qelXNativeException(const char* text) : StringRep(text)
{
    describe("Native exception");
}

void qelXNativeException::Throw(const char* text)
{
    qelThrowNew<qelXNativeException>(text);
}

qelXConnectionClosed::qelXConnectionClosed()
{
    describe("Attempt to communicate with client/server after connection has been closed");
}

void qelXConnectionClosed::Throw()
{
    qelThrowNew<qelXConnectionClosed>();
}

qelXS11nException::qelXS11nException(const char* message) : Message(message)
{
    describe("SOAP exception");
}

void qelXS11nException::Throw(const char* message)
{
    qelThrowNew<qelXS11nException>(message);
}

xstring qelXS11nException::getMessage()
{
    return Message;
}

void qelXS11nException::_s11n_setMessage(xstring value)
{
    Message = value;
}

qelXSoapFault::qelXSoapFault(const char* faultCode, const char* faultString, xany faultDetail)
    : qelXS11nException(""), FaultCode(faultCode), FaultString(faultString), FaultDetail(faultDetail)
{
    describe("SOAP Fault");
}

void qelXSoapFault::Throw(const char* faultCode, const char* faultString, xany faultDetail)
{
    qelThrowNew<qelXSoapFault>(faultCode, faultString, faultDetail);
}

xstring qelXSoapFault::getMessage()
{
    if (FaultDetail.getKind() == xanyString)
        return FaultDetail;
    return FaultString != nullptr && FaultString != "" ? FaultString : FaultCode;
}

// ---- throw helpers

xstring qelTextOf(xthrowable* failure)
{
    if (!qelIsObject(failure))
        return nullptr;
    const qelReadHold held(failure);
    xstring text;
    if (const auto* const native = qelXNativeException::softcast(failure))
        text = native->getStringRep();
    else if (auto* const other = qelXS11nException::softcast(failure))
        text = other->getMessage();
    else if (const auto* const framework = qelXException::softcast(failure))
        text = framework->getDescription();
    else if (auto* const type = xrttistruct::softcast(failure->getRtti()))
        // The libraries' own families have their text in an attribute of this name.
        if (auto* const attr = type->findAttr("Msg", 1))
            if (const xany message = attr->getValue(failure); message.getKind() == xanyString)
                text = message;
    return text == nullptr || text == "" ? failure->getQelTypeName() : text;
}

void qelThrowTypeMismatch(xrttiobject* expected, xobject* p)
{
    qelXTypeMismatch::Throw(expected->getName().CastToCString(), p);
}

void qelThrowInvalid(xrtti* expected, const xany& value)
{
    if (value.isNull())
        qelXNull::Throw();
    qelXTypeMismatch::Throw(expected->getName().CastToCString(), value);
}

void qelhThrowInvalidSeqIndex(xobject* obj, int index)
{
    qelXInvalidSeqIndex::Throw(obj, index);
}

void qelhThrowInvalidDictIndex(xobject* obj, int index)
{
    qelXInvalidDictIndex::Throw(obj, index);
}

void qelhThrowInvalidDictKey(xobject* obj, const char* key)
{
    qelXInvalidDictKey::Throw(obj, key);
}

void qelhThrowInvalidArrayIndex(xobject* obj, int dimension, int index)
{
    qelXInvalidArrayIndex::Throw(obj, dimension, index);
}

void qelhThrowNegativeIndex(int index)
{
    qelXNegativeIndex::Throw(index);
}

void qelhThrowNotInitialized()
{
    qelXNotInitialized::Throw();
}

void qelhThrowRefCountable(xobject* obj)
{
    qelXRefCountable::Throw(obj);
}

xrchandle<qelXNativeException> qelCreateNativeException(const char* text)
{
    return new (pDefMemMgr) qelXNativeException(text);
}
