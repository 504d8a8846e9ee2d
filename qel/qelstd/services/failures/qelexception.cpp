#include "qelexception.h"

#include <ostream>
#include <string>

#include "qelcaught.h"
#include "qelexceptionrow_p.h"
#include "xportexception.h"

namespace {

/// The number of elements, or of slots, of the object in `value`; null when it has none.
int sizeOf(const xany& value)
{
    if (value.getKind() != xanyObject)
        return xnullint;
    xobject* const object = value;
    try {
        if (auto* const sequence = xrttisequence::softcast(object->getRtti()))
            return sequence->getSize(object);
        if (auto* const dictionary = xrttidictionary::softcast(object->getRtti()))
            return dictionary->getSize(object);
    } catch (xthrowable* thrown) { // from the object's own class
        const qel::caught freed(thrown);
    }
    return xnullint;
}

/// Texts of facts, joined by commas; a null value adds nothing.
class Facts
{
public:
    void add(const char* what, const xstring& value)
    {
        if (!value.isNull())
            joined += (joined.isNull() ? "" : ", ") + (what + (" " + value));
    }
    void add(const char* what, int value)
    {
        if (value != xnullint)
            add(what, xstring::Printf("%d", value));
    }

    xstring joined;
};

/// The facts of the failures of this library beside their texts.
xstring explain(xthrowable* failure)
{
    Facts facts;
    if (auto* const sequence = qelXInvalidSeqIndex::softcast(failure)) {
        facts.add("index", sequence->getIndex());
        facts.add("size", sequence->getSize());
    } else if (auto* const dictionary = qelXInvalidDictIndex::softcast(failure)) {
        facts.add("slot", dictionary->getIndex());
        facts.add("slots", dictionary->getSize());
    } else if (auto* const type = qelXTypeMismatch::softcast(failure)) {
        facts.add("expected", type->getTypeName());
        facts.add("found", type->getQelObject().getQelTypeName());
    }
    return facts.joined;
}

/// "DayOfMonth" as "day of month".
xstring wordsOf(const xstring& name)
{
    std::string words;
    for (const char c : name.view()) {
        const bool isCapital = c >= 'A' && c <= 'Z';
        if (isCapital && !words.empty())
            words += ' ';
        words += isCapital ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return words;
}

/// The texts and ints among the attributes of a failure, of its bases first, except those that are its text.
void addAttributes(Facts& facts, xthrowable* failure, xrttiobject* type)
{
    for (int i = 0; i < type->getNParents(); ++i)
        addAttributes(facts, failure, type->getParent(i));
    auto* const own = xrttistruct::softcast(type);
    for (int i = 0; own != nullptr && i < own->getNAttrs(); ++i) {
        xrttiattr* const attr = own->getAttr(i);
        const xstring name = attr->getName();
        if (name == "Description" || name == "Msg" || name == "Message" || name == "StringRep")
            continue;
        const xany value = attr->getValue(failure);
        if (value.getKind() == xanyInt)
            facts.add(wordsOf(name).CastToCString(), static_cast<int>(value));
        else if (value.getKind() == xanyString)
            facts.add(wordsOf(name).CastToCString(), static_cast<xstring>(value));
    }
}

/// The function by which the class of a failure, or the nearest base class, states its facts; null for none.
auto explainerOf(xrttiobject* type) -> decltype(qelClass::explain)
{
    const qelClass* const table = qelClassOf(type);
    if (table != nullptr && table->explain != nullptr)
        return table->explain;
    for (int i = 0; i < type->getNParents(); ++i)
        if (const auto explainer = explainerOf(type->getParent(i)))
            return explainer;
    return nullptr;
}

} // namespace

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

QEL_EXCEPTION(qelXExternFunc, qelXException, "qellib::XExternFunc", qelCounted, QEL_ATTR(Func));
QEL_EXCEPTION(qelXNull, qelXException, "qellib::XNull", qelCounted);
QEL_EXCEPTION(qelXTypeMismatch, qelXException, "qellib::XTypeMismatch", qelCounted, QEL_ATTR(TypeName),
              QEL_ATTR(QelObject));
QEL_EXCEPTION(qelXInvalidArrayIndex, qelXException, "qellib::XInvalidArrayIndex", qelCounted,
              QEL_ATTR(QelObject), QEL_ATTR(Dimension), QEL_ATTR(Index));
QEL_EXCEPTION(qelXInvalidSeqIndex, qelXException, "qellib::XInvalidSeqIndex", qelCounted, QEL_ATTR(QelObject),
              QEL_ATTR(Index));
QEL_EXCEPTION(qelXInvalidDictIndex, qelXException, "qellib::XInvalidDictIndex", qelCounted,
              QEL_ATTR(QelObject), QEL_ATTR(Index));
QEL_EXCEPTION(qelXInvalidDictKey, qelXException, "qellib::XInvalidDictKey", qelCounted, QEL_ATTR(QelObject),
              QEL_ATTR(Key));
QEL_EXCEPTION(qelXNegativeIndex, qelXException, "qellib::XNegativeIndex", qelCounted, QEL_ATTR(Index));
QEL_EXCEPTION(qelXNotInitialized, qelXException, "qellib::XNotInitialized", qelCounted);
QEL_EXCEPTION(qelXRefCountable, qelXException, "qellib::XRefCountable", qelCounted, QEL_ATTR(QelObject));
QEL_EXCEPTION(qelXNativeException, qelXException, "qellib::XNativeException", qelCounted,
              QEL_ATTR(StringRep));
QEL_EXCEPTION(qelXConnectionClosed, qelXException, "qellib::XConnectionClosed", qelCounted);
QEL_EXCEPTION(qelXS11nException, qelXException, "qellib::XS11nException", qelCounted, QEL_ATTR(Message));
QEL_EXCEPTION(qelXSoapFault, qelXS11nException, "qellib::XSoapFault", qelCounted,
              QEL_ATTR(FaultCode, qelOptional), QEL_ATTR(FaultString, qelOptional),
              QEL_ATTR(FaultDetail, qelOptional));

// ---- construction and throwing

qelXException::qelXException(const char* description) : Description(description)
{
}

qelXFunc::qelXFunc(const char* name) : Name(name), Args(new (pDefMemMgr) qelXArgs)
{
}

qelXExternFunc::qelXExternFunc(const char* description, qelXFunc* func)
{
    describe(description, func);
}

void qelXExternFunc::describe(const char* description, qelXFunc* func)
{
    qelXException::describe(description);
    Func = func;
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

QEL_EXCEPTION_TEXT(qelXNull, "Attempt to assign null to non-optional object", (), ())
QEL_EXCEPTION_TEXT(qelXTypeMismatch, "Object type mismatch", (const char* typeName, xany object),
                   (typeName, object), TypeName(typeName), QelObject(object))
QEL_EXCEPTION_TEXT(qelXInvalidArrayIndex, "Array index is out of range",
                   (xany object, int dimension, int index), (object, dimension, index), QelObject(object),
                   Dimension(dimension), Index(index))
QEL_EXCEPTION_TEXT(qelXInvalidSeqIndex, "Sequence index is out of range", (xany object, int index),
                   (object, index), QelObject(object), Index(index), Size(sizeOf(object)))
QEL_EXCEPTION_TEXT(qelXInvalidDictIndex, "Dictionary index is out of range", (xany object, int index),
                   (object, index), QelObject(object), Index(index), Size(sizeOf(object)))
QEL_EXCEPTION_TEXT(qelXInvalidDictKey, "Dictionary key is not found", (xany object, const char* key),
                   (object, key), QelObject(object), Key(key))
QEL_EXCEPTION_TEXT(qelXNegativeIndex, "Negative index", (int index), (index), Index(index))
QEL_EXCEPTION_TEXT(qelXNotInitialized, "Object is not initialized or has been destroyed", (), ())
QEL_EXCEPTION_TEXT(qelXRefCountable, "Object is reference countable", (xany object), (object),
                   QelObject(object))
QEL_EXCEPTION_TEXT(qelXNativeException, "Native exception", (const char* text), (text), StringRep(text))
QEL_EXCEPTION_TEXT(qelXConnectionClosed,
                   "Attempt to communicate with client/server after connection has been closed", (), ())
QEL_EXCEPTION_TEXT(qelXS11nException, "SOAP exception", (const char* message), (message), Message(message))

xstring qelXS11nException::getMessage()
{
    return Message;
}

void qelXS11nException::_s11n_setMessage(xstring value)
{
    Message = value;
}

QEL_EXCEPTION_TEXT(qelXSoapFault, "SOAP Fault",
                   (const char* faultCode, const char* faultString, xany faultDetail),
                   (faultCode, faultString, faultDetail), qelXS11nException(""), FaultCode(faultCode),
                   FaultString(faultString), FaultDetail(faultDetail))

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
    if (text.empty())
        text = failure->getQelTypeName();
    Facts facts{explain(failure)};
    if (const auto explainer = explainerOf(failure->getRtti()))
        facts.joined = explainer(failure);
    else if (facts.joined.isNull())
        addAttributes(facts, failure, failure->getRtti());
    return facts.joined.isNull() ? text : text + " (" + facts.joined + ")";
}

void qelThrowOutOfRange()
{
    qelXNativeException::Throw("number does not fit into a variant");
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
