/* The C interface as used by a C program. Counts and foreign exceptions, which C cannot see, are tested in
 * qelcounts_c_test.cpp. */

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <qel/qelstd_c.h>

static const char* family = "no family";

static void check(int holds, const char* condition, const char* file, int line)
{
    if (holds)
        return;
    fprintf(stderr, "%s:%d: does not hold (%s): %s\n", file, line, family, condition);
    exit(1);
}

#define CHECK(condition) check((condition) != 0, #condition, __FILE__, __LINE__)

/* Whether `s` is that text, null for the null string; unlocks it. */
static int isText(__xstring_c s, const char* expected)
{
    const char* const text = xstrgetmb_c(s);
    const int is = expected == NULL ? text == xnullstr : text != xnullstr && strcmp(text, expected) == 0;
    xstrunlock_c(s);
    return is;
}

/* Whether there is a current exception of that class. */
static int currentIs(const char* type)
{
    xthrowable* const current = xgetexc_c();
    const int is = xisexc_c() && isText(xgettypename_c((xobject*)current), type);
    xrcrelease_c((xobject*)current);
    return is;
}

/* A call that must leave an exception of that class. */
#define FAILS(type, call)                  \
    do {                                   \
        xcleanupexc_c();                   \
        call;                              \
        CHECK(currentIs("qellib::" type)); \
    } while (0)

/* ---- the four families */

#define FAMILY xbool
#define SEQUENCE_NAME "booleanseq"
#define DICTIONARY_NAME "booleandict"
#define RESULT unsigned char
#define FIRST 1
#define SECOND 0
#define THIRD xnullbool
#define BLANK 77
#define IS(result, value) ((result) == (value))
#define IS_UNINIT(result) ((result) == 129)
#define IS_MISS(result) ((result) == 77)
#include "qelstd_c_family.h"

#define FAMILY xint
#define SEQUENCE_NAME "intseq"
#define DICTIONARY_NAME "intdict"
#define RESULT int
#define FIRST 7
#define SECOND (-8)
#define THIRD xnullint
#define BLANK 77
#define IS(result, value) ((result) == (value))
#define IS_UNINIT(result) ((result) == -2147483647)
#define IS_MISS(result) ((result) == 77)
#include "qelstd_c_family.h"

#define FAMILY xreal
#define SEQUENCE_NAME "realseq"
#define DICTIONARY_NAME "realdict"
#define RESULT double
#define FIRST 7.5
#define SECOND (-8.25)
#define THIRD xnullreal
#define BLANK 77
#define IS(result, value) ((result) == (value))
#define IS_UNINIT(result) ((result) == 9e125)
#define IS_MISS(result) ((result) == 77)
#include "qelstd_c_family.h"

#define FAMILY xstring
#define SEQUENCE_NAME "stringseq"
#define DICTIONARY_NAME "stringdict"
#define RESULT __xstring_c
#define FIRST "first"
#define SECOND ""
#define THIRD NULL
#define BLANK xstrcreate_c(NULL)
#define IS(result, value) isText(result, value)
#define IS_UNINIT(result) isText(result, NULL)
#define IS_MISS(result) isText(result, NULL) /* strings are stored in any case */
#include "qelstd_c_family.h"

/* ---- objects */

static void markersAreNoObjects(void)
{
    xrttiobject* const type = xintsequence_getclassrtti_c();
    xobject* const markers[] = {NULL, xuninitobj};
    for (int i = 0; i < 2; ++i) {
        xobject* const marker = markers[i];
        xrcattach_c(marker);
        xrcrelease_c(marker);
        xdelete_c(marker);
        CHECK(xisrcobj_c(marker) == 0);
        CHECK(xgetrtti_c(marker) == NULL);
        CHECK(isText(xgettypename_c(marker), NULL));
        CHECK(isText(xgetexctext_c((xthrowable*)marker), NULL));
        CHECK(xisobjsameas_c(marker, type) == (marker == NULL));
        CHECK(xisobjkindof_c(marker, type) == (marker == NULL));
    }
    CHECK(!xisexc_c());
}

static void objectsKnowTheirClass(void)
{
    xobject* const object = (xobject*)xrealdictionary_create();
    CHECK(xisrcobj_c(object) == 1);
    CHECK(xisobjsameas_c(object, xrealdictionary_getclassrtti_c()) == 1);
    CHECK(xisobjkindof_c(object, xrealdictionary_getclassrtti_c()) == 1);
    CHECK(xisobjkindof_c(object, xintdictionary_getclassrtti_c()) == 0);
    CHECK(xisobjkindof_c(object, NULL) == 0);
    CHECK(xisobjsameas_c(object, (xrttiobject*)xuninitobj) == 0);

    xrcattach_c(object);
    xrcrelease_c(object);
    CHECK(isText(xgettypename_c(object), "realdict"));
    xdelete_c(object);
}

static void objectsAreReadAndWrittenAsJson(void)
{
    const char* const text = "{\"$type\":\"intdict\",\"a\":5}";
    xobject* const read = xreadjson_c(text);
    CHECK(xisobjsameas_c(read, xintdictionary_getclassrtti_c()));
    CHECK(isText(xwritejson_c(read, -1), text));
    CHECK(isText(xwritejson_c(NULL, 2), "null"));
    xrcrelease_c(read);

    CHECK(xreadjson_c("5") == xuninitobj);
    CHECK(currentIs("qellib::XJson"));
    CHECK(xreadjson_c(NULL) == xuninitobj);
    xcleanupexc_c();
}

/* ---- strings */

static void stringsAreCounted(void)
{
    const __xstring_c text = xstrcreate_c("text");
    const __xstring_c empty = xstrcreate_c("");
    const __xstring_c otherEmpty = xstrcreate_c("");
    CHECK(strcmp(xstrgetmb_c(text), "text") == 0);
    CHECK(text.wide == NULL);
    CHECK(strcmp(xstrgetmb_c(empty), "") == 0);
    CHECK(empty.buffer == otherEmpty.buffer);

    xstrlock_c(text);
    xstrunlock_c(text);
    CHECK(strcmp(xstrgetmb_c(text), "text") == 0);
    xstrunlock_c(text);
    xstrunlock_c(empty);
    xstrunlock_c(otherEmpty);
}

static void nullStringHoldsNothing(void)
{
    const char* const markers[] = {NULL, xnullstr, xuninitstr};
    for (int i = 0; i < 3; ++i) {
        const __xstring_c none = xstrcreate_c(markers[i]);
        CHECK(none.buffer == NULL);
        CHECK(none.mb == xnullstr);
        CHECK((const char*)none.wide == xnullstr);
        CHECK(xstrgetmb_c(none) == (const char*)1);
        xstrlock_c(none);
        xstrunlock_c(none);
    }
    const __xstring_c zeroed = {0};
    CHECK(xstrgetmb_c(zeroed) == xnullstr);
}

/* ---- the current exception */

static void exceptionsAreHandedOver(void)
{
    xintsequence* const s = xintsequence_create();
    xcleanupexc_c();
    CHECK(!xisexc_c());
    CHECK(xgetexc_c() == NULL);
    CHECK(xextractexc_c() == NULL);

    xintsequence_get(s, 5);
    CHECK(xisexc_c() == 1);
    xthrowable* const seen = xgetexc_c();
    CHECK(xisexc_c() == 1);
    xthrowable* const taken = xextractexc_c();
    CHECK(taken == seen);
    CHECK(xisexc_c() == 0);
    CHECK(xisrcobj_c((xobject*)taken) == 1);

    xsetexc_c(taken);
    xsetexc_c(taken);
    CHECK(currentIs("qellib::XInvalidSeqIndex"));
    xsetexc_c(NULL);
    CHECK(!xisexc_c());

    xrcrelease_c((xobject*)seen);
    CHECK(isText(xgettypename_c((xobject*)taken), "qellib::XInvalidSeqIndex"));
    CHECK(isText(xgetexctext_c(taken), "Sequence index is out of range (index 5, size 0)"));
    CHECK(!xisexc_c());
    xdelete_c((xobject*)taken);
    xrcrelease_c((xobject*)s);
}

static void nextCallForgetsTheException(void)
{
    xboolsequence* const s = xboolsequence_create();
    xboolsequence_get(s, 0);
    CHECK(xisexc_c());

    xstringdictionary* const d = xstringdictionary_create();
    CHECK(!xisexc_c());

    xboolsequence_get(s, 0);
    xrcrelease_c((xobject*)d);
    CHECK(isText(xstrcreate_c("no collection function"), "no collection function"));
    CHECK(currentIs("qellib::XInvalidSeqIndex"));
    xcleanupexc_c();
    xrcrelease_c((xobject*)s);
}

int main(void)
{
    xboolFamily();
    xintFamily();
    xrealFamily();
    xstringFamily();
    markersAreNoObjects();
    objectsKnowTheirClass();
    objectsAreReadAndWrittenAsJson();
    stringsAreCounted();
    nullStringHoldsNothing();
    exceptionsAreHandedOver();
    nextCallForgetsTheException();
    return 0;
}
