#include <new>

#include <qel/pcexception.h>
#include <qel/qelexception.h>
#include <qel/qelstd_c.h>
#include <qel/reglib.h>
#include <qel/xdictionary.h>
#include <qel/xportexception.h>
#include <qel/xsequence.h>

#include "support/test.h"

// Facts about the C interface that C cannot test: counts, times of destruction, and foreign exceptions.

namespace {

/// A sequence whose operations run actions of the test.
class Watched : public xintsequence
{
public:
    ~Watched() override { ++gone; }
    int get(int index) override
    {
        countMeanwhile = xrcgetcount(this);
        if (action != nullptr)
            action();
        return index;
    }

    int countMeanwhile = 0;
    void (*action)() = nullptr;
    static int gone;
};
int Watched::gone = 0;

/// An exception that is not countable and records its destruction.
class Uncounted : public virtual xportXTimeout
{
public:
    Uncounted() : xportXTimeout("waiting") { ++alive; }
    ~Uncounted() override { --alive; }
    static int alive;
};
int Uncounted::alive = 0;

/// An exception whose destructor leaves another one in the slot.
class Parting : public virtual qelXNull
{
public:
    ~Parting() override
    {
        foundEmpty = !xisexc_c();
        xsetexc_c(left.get());
    }
    static bool foundEmpty;
    static xrchandle<xthrowable> left;
};
bool Parting::foundEmpty = false;
xrchandle<xthrowable> Parting::left(new qelXNotInitialized);

class CInterface : public testing::Test
{
protected:
    void SetUp() override
    {
        xcleanupexc_c();
        Watched::gone = 0;
        xrcattach(watched);
    }
    void TearDown() override
    {
        xcleanupexc_c();
        EXPECT_EQ(xrcgetcount(watched), 1); // no call kept its reference
        xrcrelease(watched);
        EXPECT_EQ(Watched::gone, 1);
        EXPECT_EQ(Uncounted::alive, 0);
    }

    Watched* const watched = new Watched;
};

std::string textOf(__xstring_c c)
{
    const xstring text(c);
    xstrunlock_c(c);
    return text == nullptr ? "(null)" : text.CastToCString();
}

/// The class of the current exception; removes it from the slot and frees it.
std::string takeCurrent()
{
    xthrowable* const taken = xextractexc_c();
    std::string type = textOf(xgettypename_c(taken));
    xdelete_c(taken);
    return type;
}

std::string printed(xobject* p)
{
    testing::internal::CaptureStdout();
    xprint_c(p);
    return testing::internal::GetCapturedStdout();
}

} // namespace

TEST_F(CInterface, CreatesWithOneReferenceOwnedByTheCaller)
{
    xintsequence* const sequence = xintsequence_create();
    EXPECT_EQ(xrcgetcount(sequence), 1);
    xstringdictionary* const dictionary = xstringdictionary_create();
    EXPECT_EQ(xrcgetcount(dictionary), 1);

    const xrchandle<xstringdictionary> other(dictionary);
    xdelete_c(dictionary);
    EXPECT_EQ(xrcgetcount(dictionary), 1); // not freed: the handle holds it
    xrcattach_c(sequence);
    xrcrelease_c(sequence);
    xrcrelease_c(sequence);
}

TEST_F(CInterface, HoldsAReferenceWhileItWorks)
{
    EXPECT_EQ(xintsequence_get(watched, 5), 5);
    EXPECT_EQ(watched->countMeanwhile, 2);
    EXPECT_EQ(xrcgetcount(watched), 1);

    EXPECT_EQ(xisrcobj_c(watched), 1);
    EXPECT_EQ(textOf(xgettypename_c(watched)), "intseq");
    EXPECT_EQ(xrcgetcount(watched), 1);
}

TEST_F(CInterface, ReleasesAnObjectThatWasNeverAttached)
{
    xintsequence* const fresh = new Watched;
    xrcrelease_c(fresh); // nothing to release
    EXPECT_EQ(xrcgetcount(fresh), 0);
    xrcattach_c(fresh);
    EXPECT_EQ(xrcgetcount(fresh), 1);
    xdelete_c(fresh);
    EXPECT_EQ(Watched::gone, 1);

    EXPECT_EQ(xintsequence_get(new Watched, 3), 3);
    EXPECT_EQ(Watched::gone, 2);
    Watched::gone = 0;
}

TEST_F(CInterface, GivesTheSlotOneReferenceToAnException)
{
    watched->action = [] { qelXNegativeIndex::Throw(-9); };
    EXPECT_EQ(xintsequence_get(watched, 0), xuninitint);
    xthrowable* const current = xgetexc_c();
    EXPECT_EQ(xrcgetcount(current), 2);
    EXPECT_EQ(qelXNegativeIndex::cast(current)->getIndex(), -9);

    xsetexc_c(current); // is current already
    EXPECT_EQ(xrcgetcount(current), 2);
    EXPECT_EQ(xextractexc_c(), current);
    EXPECT_EQ(xrcgetcount(current), 2);
    xrcrelease_c(current);
    xrcrelease_c(current);
}

TEST_F(CInterface, OwnsAnExceptionThatIsNotCountable)
{
    watched->action = [] { qelThrowNew<Uncounted>(); };
    EXPECT_EQ(xintsequence_get(watched, 0), xuninitint);
    EXPECT_EQ(Uncounted::alive, 1);
    EXPECT_EQ(xgetexc_c(), xgetexc_c());
    EXPECT_EQ(textOf(xgettypename_c(xgetexc_c())), "qeljava::XTimeout");

    EXPECT_EQ(xintsequence_getarraysize(watched), 0); // clears the slot
    EXPECT_EQ(Uncounted::alive, 0);

    xintsequence_get(watched, 0);
    xthrowable* const taken = xextractexc_c();
    EXPECT_EQ(xisrcobj_c(taken), 0);
    xcleanupexc_c();
    xrcrelease_c(taken);
    EXPECT_EQ(Uncounted::alive, 1);
    xdelete_c(taken);
    EXPECT_EQ(Uncounted::alive, 0);
}

TEST_F(CInterface, ReportsTheFieldsOfAnException)
{
    const struct
    {
        xthrowable* exception;
        const char* text;
    } cases[] = {
        {new qelXNull, "Attempt to assign null to non-optional object"},
        {new qelXNativeException("disk is on fire"), "disk is on fire"},
        {new qelXSoapFault("Client", "no such method", xany()),
         "no such method (fault code Client, fault string no such method)"},
        {new Uncounted, "communication timeout (op name waiting)"},
        {new pcXCreate(pcCreateCode::badIn, 0),
         "Stream can not be passed to a process created as an input stream"},
        {new regXKeyClosed, "reglib::XKeyClosed"}, // only its name
    };
    watched->action = [] { qelXNegativeIndex::Throw(-9); };
    xintsequence_get(watched, 0);
    for (const auto& [exception, text] : cases) {
        xrcattach(exception);
        EXPECT_EQ(textOf(xgetexctext_c(exception)), text);
        EXPECT_EQ(xrcgetcount(exception), exception->isRefCountable() ? 1 : -1);
        xdelete_c(exception);
    }
    EXPECT_EQ(takeCurrent(), "qellib::XNegativeIndex"); // left alone
}

TEST_F(CInterface, PropagatesForeignExceptionsAndLeaksNothing)
{
    watched->action = [] { throw std::runtime_error("foreign"); };
    EXPECT_THROW(xintsequence_get(watched, 0), std::runtime_error);
    EXPECT_FALSE(xisexc_c());
    EXPECT_EQ(xrcgetcount(watched), 1);
}

TEST_F(CInterface, FailuresOfCollectionsAndMemoryBecomeCurrent)
{
    watched->action = [] { throw std::bad_alloc(); };
    EXPECT_EQ(xintsequence_get(watched, 0), xuninitint);
    xthrowable* const refused = xextractexc_c();
    EXPECT_EQ(textOf(xgetexctext_c(refused)), "Out of memory");
    EXPECT_NE(qelXNativeException::softcast(refused), nullptr);
    xdelete_c(refused);

    xintsequence_set(watched, 1000000000, 1);
    EXPECT_EQ(xrcgetcount(watched), 2); // one is the exception's
    EXPECT_EQ(takeCurrent(), "qellib::XInvalidSeqIndex");
    EXPECT_EQ(xrcgetcount(watched), 1);
    EXPECT_EQ(xintsequence_getarraysize(watched), 0);
}

TEST_F(CInterface, EmptiesTheSlotBeforeItReleases)
{
    xsetexc_c(new Parting);
    xcleanupexc_c();
    EXPECT_TRUE(Parting::foundEmpty);
    EXPECT_EQ(takeCurrent(), "qellib::XNotInitialized");

    xsetexc_c(new Parting);
    xthrowable* const next = new qelXNull;
    xsetexc_c(next);
    EXPECT_EQ(xextractexc_c(), next);
    xrcrelease_c(next);
}

TEST_F(CInterface, MultibyteFormLivesAsLongAsTheText)
{
    const unsigned short wide[] = {'h', 0xe9, 0};
    const __xstring_c text = xstring(wide).getxstring_c();
    ASSERT_EQ(text.mb, nullptr);
    EXPECT_STREQ(xstrgetmb_c(text), "h\xc3\xa9");
    EXPECT_EQ(xstrgetmb_c(text), xstrgetmb_c(text));
    xstrunlock_c(text);

    const unsigned short broken[] = {0xd800, 0};
    const __xstring_c none = xstring(broken).getxstring_c();
    EXPECT_EQ(xstrgetmb_c(none), xuninitstr);
    EXPECT_EQ(takeCurrent(), "qellib::XNativeException");
    xstrunlock_c(none);
}

TEST_F(CInterface, PrintsMarkersAndValues)
{
    EXPECT_EQ(printed(nullptr), "nil");
    EXPECT_EQ(printed(xuninitobj), "uninit");

    const xrchandle<xintsequence> sequence(xintsequence::create());
    sequence->append(5);
    sequence->append(7);
    EXPECT_EQ(printed(sequence.get()), "intseq\n[\n  0 : 5\n  1 : 7\n]");
    EXPECT_EQ(xrcgetcount(sequence.get()), 1);
}

TEST_F(CInterface, KeepsAnOutArgumentWhenTheOperationFails)
{
    const xrchandle<xrealdictionary> dictionary(xrealdictionary::create());
    double number = 1.5;
    EXPECT_EQ(xrealdictionary_getbyindex(dictionary.get(), -1, &number), xuninitbool);
    EXPECT_EQ(number, 1.5);

    // The exception holds the dictionary until the next call.
    xrealdictionary_removebyindex(dictionary.get(), 0);
    EXPECT_EQ(xrcgetcount(dictionary.get()), 2);
    xrealdictionary_find(dictionary.get(), "x", &number);
    EXPECT_EQ(xrcgetcount(dictionary.get()), 1);
}

namespace {

/// Calls `work` on two threads at once.
template<class Work>
void onTwoThreads(Work work)
{
    const std::jthread first(work);
    const std::jthread second(work);
}

/// The index in the current exception, which is removed; -1 when there is none.
int takeIndex()
{
    xthrowable* const taken = xextractexc_c();
    auto* const failure = qelXNegativeIndex::softcast(taken);
    const int index = failure == nullptr ? -1 : failure->getIndex();
    xdelete_c(taken);
    return index;
}

} // namespace

TEST(CThreads, MayShareTheCurrentException)
{
    onTwoThreads([] {
        xintsequence* const sequence = xintsequence_create();
        for (int i = 0; i < 20000; ++i) {
            xintsequence_get(sequence, -7);
            if (xthrowable* const failure = xgetexc_c()) {
                EXPECT_EQ(qelXNegativeIndex::cast(failure)->getIndex(), -7);
                xrcrelease_c(failure);
            }
        }
        xrcrelease_c(sequence);
    });
    xcleanupexc_c();
}

TEST(CThreads, MayHaveSeparateCurrentExceptions)
{
    std::atomic<int> next = -100;
    xsetexc_c(nullptr);
    onTwoThreads([&] {
        xintsequence* const sequence = xintsequence_create();
        const int mine = next++;
        xthreadexc_c(1);
        for (int i = 0; i < 2000; ++i) {
            xintsequence_get(sequence, mine);
            std::this_thread::yield();
            ASSERT_EQ(takeIndex(), mine);
        }
        xintsequence_get(sequence, mine);
        xthreadexc_c(0);
        EXPECT_FALSE(xisexc_c());
        xthreadexc_c(1);
        EXPECT_FALSE(xisexc_c());
        xintsequence_get(sequence, mine); // left to the end of the thread
        xrcrelease_c(sequence);
    });
    EXPECT_FALSE(xisexc_c());
}
