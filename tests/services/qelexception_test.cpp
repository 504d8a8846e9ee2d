#include <qel/qelexception.h>
#include <qel/qeltable.h>
#include <qel/xportexception.h>

#include "support/test.h"

namespace {

/// The exception that `operation` throws; the caller owns it like a catcher.
xthrowable* thrownBy(const std::function<void()>& operation)
{
    try {
        operation();
    } catch (xthrowable* thrown) {
        return thrown;
    }
    return nullptr;
}

xany read(xobject* owner, const char* attr)
{
    return xrttistruct::cast(owner->getRtti())->findAttr(attr, 1)->getValue(owner);
}

template<class... T>
std::vector<xrttiobject*> descriptorsOf()
{
    return {T::getClassRtti()...};
}

/// The counted subject of a failure.
class Subject : public virtual xobject
{
    QEL_OBJECT(Subject);
};
constinit qelClass Subject::rtti = {.name = "test::Subject", .counted = true};

const xrchandle<Subject> subject(new Subject);

struct Row
{
    const char* type;
    const char* description;
    std::function<void()> raise;
    std::vector<xany> values; // of the class's own attributes
};

/// The row of a class whose own attributes are the arguments of its Throw.
template<class T, class... A>
Row rowOf(const char* type, const char* description, A... arguments)
{
    return {type, description, [=] { T::Throw(arguments...); }, {xany(arguments)...}};
}

/// The same by the function that throws the class.
template<class... P, class... A>
Row rowBy(void (*raise)(P...), const char* type, const char* description, A... arguments)
{
    return {type, description, [=] { raise(arguments...); }, {xany(arguments)...}};
}

const Row coreRows[] = {
    rowOf<qelXNull>("qellib::XNull", "Attempt to assign null to non-optional object"),
    rowOf<qelXTypeMismatch>("qellib::XTypeMismatch", "Object type mismatch", "a::B", subject),
    rowBy(qelhThrowInvalidArrayIndex, "qellib::XInvalidArrayIndex", "Array index is out of range",
          subject.get(), 2, 7),
    rowBy(qelhThrowInvalidSeqIndex, "qellib::XInvalidSeqIndex", "Sequence index is out of range",
          subject.get(), 3),
    rowBy(qelhThrowInvalidDictIndex, "qellib::XInvalidDictIndex", "Dictionary index is out of range",
          subject.get(), 4),
    rowBy(qelhThrowInvalidDictKey, "qellib::XInvalidDictKey", "Dictionary key is not found", subject.get(),
          "k"),
    rowBy(qelhThrowNegativeIndex, "qellib::XNegativeIndex", "Negative index", -5),
    rowBy(qelhThrowNotInitialized, "qellib::XNotInitialized",
          "Object is not initialized or has been destroyed"),
    rowBy(qelhThrowRefCountable, "qellib::XRefCountable", "Object is reference countable", subject.get()),
    rowBy(qelhThrowRefCountable, "qellib::XRefCountable", "Object is reference countable",
          static_cast<xobject*>(nullptr)),
    rowOf<qelXNativeException>("qellib::XNativeException", "Native exception", "std::bad"),
    rowOf<qelXConnectionClosed>("qellib::XConnectionClosed",
                                "Attempt to communicate with client/server after connection has been closed"),
    rowOf<qelXS11nException>("qellib::XS11nException", "SOAP exception", "no such port"),
    rowOf<qelXSoapFault>("qellib::XSoapFault", "SOAP Fault", "c", "s", subject),
};

const Row transportRows[] = {
    rowOf<xportXCannotConnect>("qeljava::XCannotConnect", "Cannot connect", "there", 80),
    rowOf<xportXMsgStringTooLong>("qeljava::XMsgStringTooLong", "Message too long", "so long"),
    rowOf<xportXFlushFailed>("qeljava::XFlushFailed", "Flush on socket failed"),
    rowOf<xportXNullInNonOptArg>("qeljava::XNullInNonOptArg",
                                 "Null passed to non optional parameter argument", "p"),
    rowOf<xportXTimeout>("qeljava::XTimeout", "communication timeout", "read"),
};

/// Checks the exception that `row` throws. types.txt of the registration's test holds the classes.
void expectValues(const Row& row, xthrowable* thrown)
{
    SCOPED_TRACE(row.type);
    ASSERT_NE(thrown, nullptr);
    auto* const type = xrttistruct::cast(thrown->getRtti());
    EXPECT_TRUE(type->getName() == row.type);
    EXPECT_TRUE(read(thrown, "Description") == row.description);
    ASSERT_EQ(static_cast<std::size_t>(type->getNAttrs()), row.values.size());
    for (int i = 0; i < type->getNAttrs(); ++i)
        EXPECT_TRUE(type->getAttr(i)->getValue(thrown) == row.values[static_cast<std::size_t>(i)]);
}

/// The place of a virtual operation in its class's table.
template<class F>
std::ptrdiff_t slotOf(F operation)
{
    std::ptrdiff_t words[2];
    static_assert(sizeof operation == sizeof words);
    std::memcpy(words, &operation, sizeof words);
    // The platform's C++ binary interface marks a virtual operation in one of the words, and has its place in
    // the first.
    EXPECT_TRUE(words[0] % 2 == 1 || words[1] % 2 == 1);
    return words[0] / static_cast<std::ptrdiff_t>(sizeof(void*));
}

template<class... F>
void expectInOrder(F... operations)
{
    const std::ptrdiff_t slots[] = {slotOf(operations)...};
    for (std::size_t i = 1; i < sizeof...(operations); ++i)
        EXPECT_EQ(slots[i], slots[i - 1] + 1);
}

} // namespace

TEST(CoreExceptions, HoldTheirArgumentsAndBelongToTheCatcher)
{
    for (const Row& row : coreRows) {
        const int held = xrcgetcount(subject.get());
        xthrowable* const thrown = thrownBy(row.raise);
        expectValues(row, thrown);
        EXPECT_TRUE(thrown->isRefCountable());
        EXPECT_EQ(xrcgetcount(thrown), 1);

        xrcrelease(thrown);
        EXPECT_EQ(xrcgetcount(subject.get()), held) << row.type; // it is destroyed with its values
    }
}

TEST(TransportExceptions, HoldTheirArgumentsAndOutliveEveryRelease)
{
    for (const Row& row : transportRows) {
        xthrowable* const thrown = thrownBy(row.raise);
        expectValues(row, thrown);
        EXPECT_FALSE(thrown->isRefCountable());
        for (int i = 0; i < 3; ++i)
            xrcrelease(thrown);
        EXPECT_TRUE(read(thrown, "Description") == row.description);
        EXPECT_EQ(xrcgetcount(thrown), -1);

        xdelete(thrown);
    }
    EXPECT_EQ(qelClassOf(xportXTimeout::getClassRtti())->rebuild, nullptr);
}

TEST(TransportExceptions, CanBeCreatedWithoutBeingThrown)
{
    xportXNullInNonOptArg* const made = xportXNullInNonOptArg::Create("count");
    EXPECT_TRUE(made->getParamName() == "count");
    EXPECT_TRUE(made->getDescription() == "Null passed to non optional parameter argument");

    xdelete(made);
}

TEST(Casts, FailuresNameTheRequestedClass)
{
    xthrowable* const thrown = thrownBy([] { xportXCannotConnect::cast(subject.get()); });
    auto* const mismatch = qelXTypeMismatch::softcast(thrown);
    ASSERT_NE(mismatch, nullptr);
    EXPECT_TRUE(mismatch->getTypeName() == "qeljava::XCannotConnect");
    EXPECT_TRUE(mismatch->getQelObject() == xany(subject));
    EXPECT_EQ(qelXException::softcast(thrown), mismatch);
    EXPECT_EQ(qelXNull::softcast(thrown), nullptr);

    xrcrelease(thrown);
    EXPECT_EQ(xportXCannotConnect::cast(nullptr), nullptr);
}

TEST(Rebuilding, UsesTheTablesOfAllParents)
{
    const xrchandle<qelXArgs> arguments(new qelXArgs);
    const xrchandle<qelXFunc> function(new qelXFunc("f"));

    const auto valueFor = [&](const qelAttr& attr) {
        const xstring type = attr.type()->getName();
        return type == "int"             ? xany(17)
               : type == "qellib::XArgs" ? xany(arguments)
               : type == "qellib::XFunc" ? xany(function)
                                         : xany("sent");
    };

    for (xrttiobject* const type :
         descriptorsOf<qelXException, qelXArgs, qelXFunc, qelXExternFunc, qelXNull, qelXTypeMismatch,
                       qelXInvalidArrayIndex, qelXInvalidSeqIndex, qelXInvalidDictIndex, qelXInvalidDictKey,
                       qelXNegativeIndex, qelXNotInitialized, qelXRefCountable, qelXNativeException,
                       qelXConnectionClosed, qelXS11nException, qelXSoapFault>()) {
        SCOPED_TRACE(type->getName());
        const qelClass* const table = qelClassOf(type);
        const xrchandle<xobject> rebuilt(table->rebuild(nullptr));
        ASSERT_TRUE(rebuilt);
        EXPECT_TRUE(rebuilt->isSameAs(type));

        std::vector<const qelAttr*> attrs; // inherited ones too
        for (const qelClass* at = table; at != nullptr;
             at = at->parents.size() == 0 ? nullptr : qelClassOf(at->parents.begin()->rtti()))
            for (const qelAttr& attr : at->attrs)
                attrs.push_back(&attr);
        for (const qelAttr* const attr : attrs) {
            const xany before = attr->read(rebuilt.get());
            EXPECT_TRUE(attr->type() == qelGetRtti_any() ? before.isUninit() : before.isNull()) << attr->name;
        }
        for (const qelAttr* const attr : attrs)
            attr->rebuild(rebuilt.get(), valueFor(*attr));
        for (const qelAttr* const attr : attrs)
            EXPECT_TRUE(attr->read(rebuilt.get()) == valueFor(*attr)) << attr->name;
    }
    EXPECT_EQ(xrcgetcount(arguments.get()), 1); // the rebuilt objects are destroyed with their references
    EXPECT_EQ(xrcgetcount(function.get()), 1);
}

TEST(Rebuilding, RestoresOnlyTransmittedFields)
{
    void* const made = qelXInvalidArrayIndex::_s11n_create(nullptr);
    const xrchandle<qelXInvalidArrayIndex> rebuilt(static_cast<qelXInvalidArrayIndex*>(made));
    rebuilt->_s11n_setIndex(4);
    EXPECT_EQ(rebuilt->getIndex(), 4);
    EXPECT_EQ(rebuilt->getDimension(), xnullint);
    EXPECT_TRUE(rebuilt->getDescription() == nullptr);

    rebuilt->_s11n_setDescription("as the server put it");
    EXPECT_TRUE(rebuilt->getDescription() == "as the server put it");
}

TEST(Rebuilding, RejectsAValueOfAnotherType)
{
    const xrchandle<qelXNegativeIndex> rebuilt(new qelXNegativeIndex(-1));
    const qelAttr& index = *qelClassOf(qelXNegativeIndex::getClassRtti())->attrs.begin();
    xthrowable* const thrown = thrownBy([&] { index.rebuild(rebuilt.get(), "three"); });
    ASSERT_NE(qelXTypeMismatch::softcast(thrown), nullptr);
    xrcrelease(thrown);

    EXPECT_EQ(rebuilt->getIndex(), -1);
    index.rebuild(rebuilt.get(), nullptr);
    EXPECT_EQ(rebuilt->getIndex(), xnullint);
}

TEST(SoapFault, ComposesItsMessageFromTheMostPreciseText)
{
    const auto message = [](const char* code, const char* text, const xany& detail) {
        const xrchandle<qelXSoapFault> fault(new qelXSoapFault(code, text, detail));
        EXPECT_TRUE(read(fault.get(), "Message") == xany(fault->getMessage()));
        return fault->getMessage();
    };

    EXPECT_TRUE(message("c", "s", "d") == "d");
    EXPECT_TRUE(message("c", "s", "") == "");
    EXPECT_TRUE(message("c", "s", 5) == "s");
    EXPECT_TRUE(message("c", "s", nullptr) == "s");
    EXPECT_TRUE(message("c", "", xany()) == "c");
    EXPECT_TRUE(message("c", nullptr, xany()) == "c");
    EXPECT_TRUE(message("", nullptr, xany()) == "");
    EXPECT_TRUE(message(nullptr, nullptr, xany()) == nullptr);
}

TEST(Operations, FollowTheOrderOfTheAttributes)
{
    expectInOrder(&qelXTypeMismatch::_s11n_setTypeName, &qelXTypeMismatch::_s11n_setQelObject);
    expectInOrder(&qelXInvalidArrayIndex::_s11n_setQelObject, &qelXInvalidArrayIndex::_s11n_setDimension,
                  &qelXInvalidArrayIndex::_s11n_setIndex);
    expectInOrder(&qelXInvalidSeqIndex::_s11n_setQelObject, &qelXInvalidSeqIndex::_s11n_setIndex);
    expectInOrder(&qelXInvalidDictIndex::_s11n_setQelObject, &qelXInvalidDictIndex::_s11n_setIndex);
    expectInOrder(&qelXInvalidDictKey::_s11n_setQelObject, &qelXInvalidDictKey::_s11n_setKey);
    expectInOrder(&qelXFunc::_s11n_setName, &qelXFunc::_s11n_setArgs);
    expectInOrder(&qelXS11nException::getMessage, &qelXS11nException::_s11n_setMessage);
    expectInOrder(&qelXSoapFault::_s11n_setFaultCode, &qelXSoapFault::_s11n_setFaultString,
                  &qelXSoapFault::_s11n_setFaultDetail);
}

namespace {

/// Cannot even be constructed.
class Stillborn : public virtual qelXException
{
    QEL_OBJECT(Stillborn);

public:
    Stillborn() : text("some text") { qelXNull::Throw(); }

private:
    xstring text;
};
constinit qelClass Stillborn::rtti = {.name = "test::Stillborn", .counted = true};

} // namespace

TEST(ExternFunc, NamesTheFunctionAndItsEmptyArguments)
{
    const xrchandle<qelXFunc> func(new qelXFunc("f"));
    EXPECT_TRUE(func->getName() == "f");
    EXPECT_TRUE(func->getArgs());

    const xrchandle<qelXExternFunc> error(new qelXExternFunc("d", func.get()));
    EXPECT_EQ(xrcgetcount(func.get()), 2);
    EXPECT_TRUE(read(error.get(), "Func") == xany(func));
}

TEST(Throwing, FailsAsTheConstructorDoes)
{
    xthrowable* const instead = thrownBy([] { qelThrowNew<Stillborn>(); });
    EXPECT_NE(qelXNull::softcast(instead), nullptr);
    xrcrelease(instead);
}
