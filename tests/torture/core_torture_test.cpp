#include <cstring>
#include <memory>
#include <sstream>
#include <utility>

#include <qel/qelstd.h>
#include <qel/qelstd_c.h>
#include <qel/qeltable.h>

#include "services/recorder.h"
#include "support/thrown.h"
#include "support/torture.h"

// The core with failing allocations.

using torture::attempt;
using torture::Outcome;
using torture::outOfMemory;
using torture::worked;

namespace {

class Node : public virtual xobject
{
    QEL_OBJECT(Node);
    QEL_REBUILD(Node);
    QEL_PROPERTY(xstring, Name);
    QEL_PROPERTY(xrchandle<Node>, Next);

public:
    Node() = default;
};

constinit qelClass Node::rtti = {
    .name = "test::Node",
    .counted = true,
    .attrs = {QEL_ATTR(Name), QEL_ATTR(Next, qelOptional)},
    .rebuild = &qelRebuildOf<self>,
};

constexpr char longText[] = "a text that has to be copied somewhere";

xrchandle<Node> someNodes()
{
    const xrchandle<Node> node(new Node);
    node->_s11n_setName(longText);
    node->_s11n_setNext(new Node);
    return node;
}

xrchandle<xanysequence> someValues()
{
    xrchandle<xanysequence> values(xanysequence::create());
    for (int i = 0; i < 30; ++i)
        values->append(i % 3 == 0 ? xany(longText) : xany(i));
    return values;
}

std::string keyOf(int i)
{
    return "a key that is longer than most, " + std::to_string(i);
}

class Listener final : public xerrlistener
{
public:
    xerhstatus onError(const char*, xrcunihandle<xthrowable>, xrcunihandle<xobject> subject,
                       xrcunihandle<xobject>) override
    {
        return subject ? 1 : 0;
    }
};

// ---- strings

TORTURE(BothForms)
{
    const xstring text("a text with an \xC3\xA4 in it");
    text.CastToCWString();
    const xstring wide(text.CastToCWString());
    EXPECT_TRUE(wide == text);
}

TORTURE(Appending)
{
    xstring text("begin");
    const xstring shared(text);
    for (int i = 0; i < 100; ++i)
        text += " and more";
    text += text.CastToCWString();
    EXPECT_TRUE(shared == "begin");
}

TORTURE(Replacing)
{
    xstring text("one two one two one two");
    text.Substitute("two", "a much longer word than that", 0, -1);
    EXPECT_EQ(text.Substring(4, -1).ToUpper().GetLength(), 94);
    EXPECT_TRUE(text.GetWord(3, " ") == "longer");
}

TORTURE(Formatting)
{
    EXPECT_TRUE(xstring::Printf("%d and %s", 17, "text") == "17 and text");
}

TORTURE(Matching)
{
    const xstring text("a text with several words");
    EXPECT_TRUE(text.Match("*w?th*w?rds"));
    const xstring part("several");
    EXPECT_EQ(text.Pos(part.CastToCWString()), 12);
}

// ---- variants and collections

TORTURE(Variants)
{
    xany value(longText);
    xany copy(value);
    value = someNodes().get();
    copy = value;
    value = 3;
    EXPECT_TRUE(copy == copy);
    const xstring text = xany(xstring("another ", longText));
    EXPECT_FALSE(text == nullptr);
}

TORTURE(NumbersInASequence)
{
    const xrchandle<xintsequence> numbers(xintsequence::create());
    for (int i = 0; i < 5000; ++i)
        numbers->append(i);
    numbers->set(6000, 1);
    numbers->insertseq(10, numbers.get());
    numbers->removerange(5, 9000);
    EXPECT_EQ(numbers->getarraysize(), 6001 * 2 - 8995);
}

TORTURE(ValuesInASequence)
{
    const xrchandle<xanysequence> values = someValues();
    values->insertseq(3, values.get());
    values->insert(100, xany("far"));
    values->removerange(2, 9);
    EXPECT_EQ(values->getarraysize(), 94);
}

TORTURE(StringsInADictionary)
{
    const xrchandle<xstringdictionary> dictionary(xstringdictionary::create());
    for (int i = 0; i < 70; ++i)
        dictionary->set(keyOf(i).c_str(), longText);
    for (int i = 0; i < 60; ++i)
        dictionary->remove(keyOf(i).c_str());
    EXPECT_TRUE(dictionary->find(keyOf(65).c_str(), nullptr));
    dictionary->clearall();
}

TORTURE(ValuesInADictionary)
{
    const xrchandle<xanydictionary> dictionary(xanydictionary::create());
    for (int i = 0; i < 200; ++i)
        dictionary->set(keyOf(i).c_str(), xany(someNodes().get()));
    xany found;
    EXPECT_TRUE(dictionary->find(keyOf(150).c_str(), &found));
    xstring key;
    for (int slot = 0; slot < dictionary->getarraysize(); ++slot)
        dictionary->getkeybyindex(slot, &key);
}

// ---- types

TORTURE(AttributesOfAClass)
{
    const std::unique_ptr<xrttiattrseq, qelDelete> attrs(
        qelRttiCollectAttrs(xrttistruct::cast(Node::getClassRtti()), 1));
    EXPECT_EQ(attrs->getarraysize(), 2);
}

TORTURE(ReadingAttributes)
{
    const xrchandle<Node> node = someNodes();
    xrttistruct* const type = xrttistruct::cast(Node::getClassRtti());
    EXPECT_EQ(type->findAttr("Name", 1)->getValue(node.get()), xany(longText));
    EXPECT_EQ(type->findAttr("Next", 1)->getValue(node.get()).getKind(), xanyObject);
}

TORTURE(DataOfAType)
{
    static int data;
    xrttiobject type; // without a name, its user data are not shared with a registered one
    static const auto keys = [] {
        std::vector<std::string> made;
        for (int i = 0; i < 8; ++i)
            made.push_back(keyOf(i));
        return made;
    }();
    for (const std::string& key : keys)
        qelRttiAddUserData(&type, key.c_str(), &data);
    EXPECT_EQ(qelRttiGetUserData(&type, keys.back().c_str()), &data);
}

TORTURE(ElementOfAnArray)
{
    constexpr int rank = 12;
    static int extents[rank] = {12, 12, 12, 12, 12, 12, 12, 12, 12, 12, 12, 12};
    static xrttiarray type;
    type.initialize("test::Cube", 1, rank, extents, qelGetRtti_int(), 0,
                    [](xobject*, int* indices) { return xany(indices[rank - 1]); });
    const xrchandle<xintsequence> indices(xintsequence::create());
    for (int i = 0; i < rank; ++i)
        indices->append(i);
    EXPECT_EQ(type.getElemValue(nullptr, indices), xany(rank - 1));
}

// ---- objects and exceptions

TORTURE(ChainOfOwners)
{
    xrchandle<Node> first;
    for (int i = 0; i < 300; ++i) { // deep enough that nested deletions are deferred
        const xrchandle<Node> next(new Node);
        next->_s11n_setNext(first);
        first = next;
    }
}

template<class Throw>
void throwing(Throw raise)
{
    describeThrown(raise, [](xthrowable*) { return 0; });
}

TORTURE(Mismatch)
{
    throwing([] { Node::cast(xrchandle<xintsequence>(xintsequence::create()).get()); });
}

TORTURE(BadIndices)
{
    throwing([] { someValues()->get(100); });
    throwing([] { someValues()->get(-1); });
    throwing([] {
        const xrchandle<xintdictionary> dictionary(xintdictionary::create());
        dictionary->setbyindex(7, 1);
    });
}

TORTURE(Fault)
{
    throwing([] { qelXSoapFault::Throw("a code", longText, xany(someNodes().get())); });
}

TORTURE(Listening)
{
    static Listener listener;
    struct Listening
    {
        Listening() { xerrhandler::addlistener(&listener); }
        ~Listening() { xerrhandler::removelistener(&listener); }
    };
    const Listening now;
    const xrchandle<Node> node = someNodes();
    EXPECT_EQ(xerrhandler::dispatch("text", nullptr, node.get(), nullptr), 1);
}

// ---- walks

TORTURE(Rebuilding)
{
    qelS11nContext context;
    context.setUserData("name", xany(longText));
    context.setRootObject(new Node);
    const xrchandle<Node> node(Node::softcast(qelClassOf(Node::getClassRtti())->rebuild(&context)));
    torture::need(static_cast<bool>(node));
    xrttistruct* const type = xrttistruct::cast(Node::getClassRtti());
    qelClassOf(type)->attrs.begin()->rebuild(node.get(), xany(longText));
    EXPECT_TRUE(node->getName() == longText);
}

TORTURE(Printing)
{
    const xrchandle<xanysequence> values = someValues();
    values->append(xany(someNodes().get()));
    std::ostringstream out;
    qelPrint(xany(values.get()), out, 2);
}

TORTURE(Walking)
{
    const xrchandle<xanysequence> values = someValues();
    values->append(xany(someNodes().get()));
    testtypes::Recorder recorder;
    qelTraverse(xany(values.get()), &recorder);
    EXPECT_FALSE(recorder.lines.empty());
}

// ---- the C interface

TORTURE(SequencesFromC)
{
    xstringsequence* const made = xstringsequence_create();
    torture::need(qelIsObject(made));
    const xrchandle<xstringsequence> owner(made);
    xrcrelease_c(made);
    for (int i = 0; i < 40; ++i)
        xstringsequence_set(made, i, longText);
    xstringsequence_insertseq(made, 7, made);
    xstrunlock_c(xstringsequence_get(made, 50));
    xstrunlock_c(xstringsequence_get(made, 5000));
    EXPECT_TRUE(xisexc_c());
    xcleanupexc_c();
}

TORTURE(DictionariesFromC)
{
    xstringdictionary* const made = xstringdictionary_create();
    torture::need(qelIsObject(made));
    const xrchandle<xstringdictionary> owner(made);
    xrcrelease_c(made);
    for (int i = 0; i < 40; ++i)
        xstringdictionary_set(made, keyOf(i).c_str(), "value");
    __xstring_c out;
    xstringdictionary_find(made, keyOf(7).c_str(), &out);
    xstrunlock_c(out);
    xstrunlock_c(xgettypename_c(made));
    xstrunlock_c(xstrcreate_c(longText));
}

/// A class that is unknown before its descriptor is requested.
template<int n>
class Late : public virtual Node
{
    QEL_OBJECT(Late);

public:
    int getNumber() { return n; }
    Late* getSelf() { return this; }
};

template<int n>
constinit qelClass Late<n>::rtti = {
    .name = "test::Late",
    .counted = true,
    .parents = {QEL_PARENT(Node)},
    .attrs = {QEL_ATTR(Number), QEL_ATTR(Self, qelOptional)},
};

template<int n>
void describeLate(bool ever)
{
    SCOPED_TRACE(n);
    {
        const failing::Failing failure(n, ever);
        attempt([] { Late<n>::getClassRtti(); });
    }

    xrttistruct* const type = xrttistruct::cast(Late<n>::getClassRtti());
    EXPECT_TRUE(type->getName() == "test::Late");
    EXPECT_EQ(qelRttiGetFromMap("test::Late"), type);
    EXPECT_EQ(type->getParent(0), Node::getClassRtti());
    ASSERT_EQ(type->getNAttrs(), 2);
    EXPECT_EQ(type->findAttr("Self", 0)->getType(), static_cast<xrtti*>(type));
    const xrchandle<Late<n>> object(new Late<n>);
    EXPECT_EQ(type->findAttr("Number", 0)->getValue(object.get()), xany(n));
    EXPECT_EQ(qelClassOf(type), qelClassOf(Late<n>::getClassRtti()));
}

} // namespace

TEST(OutOfMemory, StringThatCannotGrowIsUnchanged)
{
    if (!failing::ofMalloc)
        GTEST_SKIP() << "texts come from malloc";
    xstring text("kept");
    const failing::Failing failure(0, true);

    EXPECT_EQ(attempt([&] {
                  for (int i = 0; i < 1000; ++i)
                      text += "0123456789";
              }),
              outOfMemory);

    failing::Failing::stop();
    EXPECT_EQ(strncmp(text.CastToCString(), "kept", 4), 0);
    text += "!";
    EXPECT_EQ(text.CastToCString()[text.GetLength() - 1], '!');
}

TEST(OutOfMemory, DictionaryShrinksLater)
{
    for (const bool settled : {false, true}) {
        const xrchandle<xintdictionary> dictionary(xintdictionary::create());
        for (int i = 0; i < 40000; ++i)
            dictionary->set(std::to_string(i).c_str(), i);
        if (settled)
            dictionary->getkeybyindex(0, nullptr);
        std::vector<std::string> names;
        for (int i = 100; i < 40000; ++i)
            names.push_back(std::to_string(i));
        {
            const failing::Failing failure(0, true);
            for (const std::string& name : names)
                dictionary->remove(name.c_str());
        }
        for (int i = 100; i < 110; ++i)
            dictionary->set(std::to_string(i).c_str(), i);
        for (int i = 0; i < 110; ++i) {
            int found = -1;
            EXPECT_TRUE(dictionary->find(std::to_string(i).c_str(), &found));
            EXPECT_EQ(found, i);
        }
    }
}

TEST(OutOfMemory, CollectionsStayConsistent)
{
    const xrchandle<xintdictionary> dictionary(xintdictionary::create());
    const xrchandle<xstringsequence> sequence(xstringsequence::create());
    for (long after = 0; after < 200; ++after) {
        const std::string key = "key" + std::to_string(after);
        const int size = sequence->getarraysize();
        Outcome set, append;
        {
            const failing::Failing failure(after % 7, true);
            set = attempt([&] { dictionary->set(key.c_str(), static_cast<int>(after)); });
        }
        {
            const failing::Failing failure(after % 3, true);
            append = attempt([&] { sequence->append(key.c_str()); });
        }
        int found = -1;
        ASSERT_EQ(dictionary->find(key.c_str(), &found), set == worked);
        ASSERT_EQ(found, set == worked ? after : -1);
        ASSERT_EQ(sequence->getarraysize(), size + (append == worked));
        dictionary->set(key.c_str(), static_cast<int>(after));
        ASSERT_TRUE(dictionary->find("key0", nullptr));
    }
}

TEST(OutOfMemory, NoDescriptorIsHalfBuilt)
{
    []<int... n>(std::integer_sequence<int, n...>)
    {
        (describeLate<n>(n % 2 != 0), ...);
    }
    (std::make_integer_sequence<int, 40>());
}
