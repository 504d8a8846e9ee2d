#include <gtest/gtest.h>

#include <sstream>

#include <qel/qelstd.h>
#include <qel/qelstd_c.h>
#include <qel/qeltable.h>

#include "support/failingmalloc.h"

// Each scenario runs with the first allocation failing, then with the second, and so on until it succeeds: it
// may end with an exception, but it must leak nothing, and what it worked on must be whole.

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

enum Outcome { worked, outOfMemory, reported };

template<class Scenario>
Outcome attempt(Scenario scenario)
{
    try {
        scenario();
        return worked;
    } catch (const std::bad_alloc&) {
        return outOfMemory;
    } catch (xthrowable* thrown) {
        failing::Failing::stop();
        xrcrelease(thrown);
        return reported;
    }
}

template<class Scenario>
void runOut(const char* name, Scenario scenario)
{
    SCOPED_TRACE(name);
    ASSERT_EQ(attempt(scenario), worked); // makes what is made once and kept
    for (const bool ever : {false, true}) {
        long after = 0;
        bool happened = true;
        for (; happened; ++after) {
            ASSERT_LT(after, 5000) << "never gets by with the memory there is";
            const long before = failing::live;
            {
                const failing::Failing failure(after, ever);
                attempt(scenario);
                happened = failing::Failing::happened();
            }
            ASSERT_EQ(failing::live, before) << "with allocation " << after << " failing";
        }
        EXPECT_GT(after, 1) << "the scenario allocates nothing";
    }
}

xrchandle<xanysequence> someValues()
{
    xrchandle<xanysequence> values(xanysequence::create());
    for (int i = 0; i < 30; ++i)
        values->append(i % 3 == 0 ? xany("a text that has to be copied somewhere") : xany(i));
    return values;
}

} // namespace

TEST(OutOfMemory, LosesNothingInStrings)
{
    if (!failing::ofMalloc)
        GTEST_SKIP() << "texts come from malloc";
    runOut("both forms", [] {
        const xstring text("a text with an \xC3\xA4 in it");
        text.CastToCWString();
        const xstring wide(text.CastToCWString());
        wide.CastToCString();
    });
    runOut("appending", [] {
        xstring text("begin");
        const xstring shared(text);
        for (int i = 0; i < 100; ++i)
            text += " and more";
        EXPECT_TRUE(shared == "begin");
    });
    runOut("replacing", [] {
        xstring text("one two one two one two");
        text.Substitute("two", "a much longer word than that", 0, -1);
        text.Substring(4, -1).ToUpper();
        text.GetWord(3, " ");
    });
    runOut("formatting", [] { xstring::Printf("%d and %s", 17, "text"); });
}

TEST(OutOfMemory, LeavesWhatWasThereWhenAStringCannotGrow)
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

TEST(OutOfMemory, LosesNothingInCollections)
{
    runOut("sequence", [] {
        const xrchandle<xanysequence> values = someValues();
        values->insertseq(3, values.get());
        values->insert(100, xany("far"));
        values->removerange(2, 9);
    });
    runOut("dictionary", [] {
        const xrchandle<xstringdictionary> dictionary(xstringdictionary::create());
        for (int i = 0; i < 70; ++i)
            dictionary->set(("key" + std::to_string(i)).c_str(), "value");
        for (int i = 0; i < 60; ++i)
            dictionary->remove(("key" + std::to_string(i)).c_str());
        dictionary->clearall();
    });
    runOut("attributes", [] { xdelete(qelRttiCollectAttrs(xrttistruct::cast(Node::getClassRtti()), 1)); });
}

TEST(OutOfMemory, LeavesCollectionsWhole)
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

TEST(OutOfMemory, LosesNothingWithObjectsAndExceptions)
{
    runOut("a chain", [] {
        xrchandle<Node> first;
        for (int i = 0; i < 300; ++i) { // deep enough that deaths have to wait for one another
            const xrchandle<Node> next(new Node);
            next->_s11n_setNext(first);
            first = next;
        }
    });
    runOut("throwing", [] {
        try {
            qelXTypeMismatch::Throw("test::Node", xany("value"));
        } catch (xthrowable* thrown) {
            xrcrelease(thrown);
        }
    });
    runOut("a context", [] {
        qelS11nContext context;
        context.setUserData("name", xany("value"));
        context.setRootObject(new Node);
    });
}

TEST(OutOfMemory, LosesNothingInAWalk)
{
    const xrchandle<Node> node(new Node);
    node->_s11n_setName("name");
    node->_s11n_setNext(new Node);
    const xrchandle<xanysequence> values = someValues();
    values->append(node);
    std::ostringstream out;

    runOut("printing", [&] {
        out.str({});
        qelPrint(values, out, 2);
    });
}

TEST(OutOfMemory, PassesThroughTheCInterface)
{
    runOut("C calls", [] {
        xstringdictionary* const dictionary = xstringdictionary_create();
        const xrchandle<xstringdictionary> owner(dictionary);
        xrcrelease(dictionary);
        for (int i = 0; i < 40; ++i)
            xstringdictionary_set(dictionary, std::to_string(i).c_str(), "value");
        __xstring_c out;
        if (xstringdictionary_find(dictionary, "7", &out) == 1)
            xstrunlock_c(out);
        xstrunlock_c(xstrcreate_c("text"));
    });
}
