/* clang-format off */
/* The framework for callers written in C: objects, strings, the current exception, and the standard sequences
 * and dictionaries.
 *
 * Conventions
 *
 * 1. Errors. A function that fails returns the uninit marker of its result type and makes the failure the
 *    current exception. The collection functions clear the current exception when they begin, so that it
 *    afterwards concerns that call only: where a marker may also be a value, check xisexc_c().
 *    xgettypename_c returns an exception's class, xgetexctext_c its text; xprint_c prints all of it.
 * 2. Ownership. Objects are counted. `create` gives the caller one reference; xrcattach_c takes another,
 *    xrcrelease_c and xdelete_c release one, and releasing the last one frees the object. An exception of a
 *    class that is not countable (xisrcobj_c) is freed by xdelete_c alone. A __xstring_c that a function
 *    returns or stores owns one reference to its text, released with xstrunlock_c; the previous content of an
 *    out argument is overwritten, not released. Arguments stay the caller's. Descriptors are never freed.
 * 3. Markers. xnullint, xuninitint and their kin (qelxobj_i.h) stand for "no value" and "never set". An
 *    object pointer may be null or xuninitobj wherever an object is expected; so may the pointer to a
 *    collection, which then makes qellib::XNotInitialized current. A text pointer may be null, xnullstr or
 *    xuninitstr: these stand for the null string.
 * 4. Casts. A collection and an exception are objects, and in C their pointers are cast: (xobject*)sequence.
 *    A descriptor is not passed as an object. The functions do not check that a pointer is of the class that
 *    they name.
 * 5. Attach first. A function holds its own reference while it runs: an object created elsewhere that has no
 *    reference yet is freed when the function releases its own.
 * 6. Threads. The process has one current exception, which may concern a call on another thread. A thread
 *    that calls xthreadexc_c(1) first has its own. A collection is used by one thread at a time. Counting is
 *    safe from any thread.
 * 7. Other exceptions. Running out of memory makes a qellib::XNativeException, "Out of memory", current.
 *    Other C++ exceptions that are not the framework's are not caught: they pass through to C++ callers, and
 *    terminate a program that has none.
 *
 * C99; the same functions serve C++. */
/* clang-format on */
#ifndef QEL_QELSTD_C_H
#define QEL_QELSTD_C_H

#include <qel/qelexport.h>
#include <qel/qelxobj_i.h>

#ifdef __cplusplus
class xboolsequence;
class xintsequence;
class xrealsequence;
class xstringsequence;
class xbooldictionary;
class xintdictionary;
class xrealdictionary;
class xstringdictionary;

extern "C" {
#else
typedef struct xboolsequence xboolsequence;
typedef struct xintsequence xintsequence;
typedef struct xrealsequence xrealsequence;
typedef struct xstringsequence xstringsequence;
typedef struct xbooldictionary xbooldictionary;
typedef struct xintdictionary xintdictionary;
typedef struct xrealdictionary xrealdictionary;
typedef struct xstringdictionary xstringdictionary;
#endif

/* ---- objects. `p` is null, xuninitobj or a live object. For null and xuninitobj, a function does nothing and
 * returns null (the null string) unless documented otherwise */

/* Takes, and releases, one reference. Null and xuninitobj are ignored. */
QEL_API void xrcattach_c(xobject* p);
QEL_API void xrcrelease_c(xobject* p);
/* Whether the object's class is reference countable. Null, xuninitobj: 0. */
QEL_API unsigned char xisrcobj_c(xobject* p);
/* Releases the caller's reference, or frees an object of a class that is not countable. */
QEL_API void xdelete_c(xobject* p);
/* Returns the descriptor of the object's class. */
QEL_API xrttiobject* xgetrtti_c(xobject* p);
/* Returns the registered name of the object's class. */
QEL_API __xstring_c xgettypename_c(xobject* p);
/* Whether the object's class has the name of `type`; is `type` or derives from it. Null: 1, xuninitobj: 0. */
QEL_API unsigned char xisobjsameas_c(xobject* p, xrttiobject* type);
QEL_API unsigned char xisobjkindof_c(xobject* p, xrttiobject* type);
/* Writes the object and its whole content to the standard output. Null: "nil", xuninitobj: "uninit". */
QEL_API void xprint_c(xobject* p);
/* The same to the standard error output. */
QEL_API void qelDebugPrint(xobject* p);
/* Returns the object as JSON; docs/json.md describes the form. `indent`: blanks for each level, -1 for all on
 * one line. Null, xuninitobj: "null" and "{"$uninit":true}". What has no such form makes qellib::XJson
 * current, and returns the null string. */
QEL_API __xstring_c xwritejson_c(xobject* p, int indent);
/* Returns the object of which the JSON text consists, with one reference, which is the caller's. Any other
 * text makes qellib::XJson current, and returns xuninitobj. */
QEL_API xobject* xreadjson_c(const char* text);

/* ---- strings */

/* Returns a string with a copy of `text`. */
QEL_API __xstring_c xstrcreate_c(const char* text);
/* Returns the text in UTF-8, xnullstr for the null string. Valid while the caller holds its reference. For a
 * wide text without such a form, makes qellib::XNativeException current and returns xuninitstr; otherwise the
 * current exception is unchanged. */
QEL_API const char* xstrgetmb_c(__xstring_c s);
/* Takes one more reference to the text; releases one. The null string is ignored. */
QEL_API void xstrlock_c(__xstring_c s);
QEL_API void xstrunlock_c(__xstring_c s);

/* ---- the current exception */

/* Makes `e` the current exception, replacing any other; the slot takes its own reference, or ownership of an
 * exception of a class that is not countable. Null: empties the slot. */
QEL_API void xsetexc_c(xthrowable* e);
/* Returns the current exception or null, with a reference for the caller if its class is countable. One of a
 * class that is not countable is valid while it is current: where other threads use the same slot, use
 * xextractexc_c. */
QEL_API xthrowable* xgetexc_c(void);
/* Whether there is a current exception. */
QEL_API unsigned char xisexc_c(void);
/* Returns the current exception or null and empties the slot; the caller owns the exception. */
QEL_API xthrowable* xextractexc_c(void);
/* Empties the slot. */
QEL_API void xcleanupexc_c(void);
/* 1: gives the calling thread its own current exception, empty at first and freed when the thread exits. 0:
 * frees it; the thread uses the process's again, as every thread does at first. */
QEL_API void xthreadexc_c(unsigned char own);
/* Returns the text of `e`, or the registered name of its class when it has no text. Null, xuninitobj: the null
 * string. Does not change the current exception. */
QEL_API __xstring_c xgetexctext_c(xthrowable* e);

/* Sequences: xboolsequence_get, xintsequence_get, ...
 *
 * create        A new empty sequence with one reference, which is the caller's.
 * getarraysize  The number of elements.
 * get           The element. A bad index makes qellib::XNegativeIndex or qellib::XInvalidSeqIndex current.
 * set           Assigns the element; an index past the end extends the sequence.
 * insert        Inserts before the element at `index`; an index past the end extends the sequence first.
 * insertseq     Inserts all elements of `other`, which may be `s` itself.
 * removerange   Removes the elements from the lower index up to, not including, the higher; stops at the end.
 * getclassrtti_c  The descriptor of the class. */
#define QEL_C_SEQUENCE(type, in, out)                               \
    QEL_API type* type##_create(void);                              \
    QEL_API int type##_getarraysize(type* s);                       \
    QEL_API out type##_get(type* s, int index);                     \
    QEL_API void type##_set(type* s, int index, in value);          \
    QEL_API void type##_insert(type* s, int index, in value);       \
    QEL_API void type##_insertseq(type* s, int index, type* other); \
    QEL_API void type##_removerange(type* s, int from, int to);     \
    QEL_API xrttiobject* type##_getclassrtti_c(void)

QEL_C_SEQUENCE(xboolsequence, unsigned char, unsigned char);
QEL_C_SEQUENCE(xintsequence, int, int);
QEL_C_SEQUENCE(xrealsequence, double, double);
QEL_C_SEQUENCE(xstringsequence, const char*, __xstring_c);

/* Dictionaries: xbooldictionary_find, xintdictionary_find, ...
 *
 * Entries are also accessible by slot, their position in the table, which may change with each new key and
 * each removal. To walk over all entries, read the keys of the slots from 0 on. Slots past the table read as
 * empty; setbyindex and removebyindex report them as errors.
 *
 * create        A new empty dictionary with one reference, which is the caller's.
 * getcount      The number of entries, in constant time.
 * find          Whether the key exists. Stores its value.
 * set           Assigns the value of the key, which is added if it is new. A null key makes
 *               qellib::XInvalidDictKey current.
 * getbyindex    Whether the slot has an entry. Stores its value. A negative slot makes
 *               qellib::XNegativeIndex current here and below.
 * getkeybyindex The same with its key.
 * setbyindex    Assigns the value of the slot's entry; ignores an empty slot. A slot past the table makes
 *               qellib::XInvalidDictIndex current, for removebyindex too.
 * remove        Removes the entry of that key; ignores a missing key.
 * removebyindex Removes the slot's entry; ignores an empty slot.
 * getclassrtti_c  The descriptor of the class.
 *
 * When find and getbyindex find nothing, a number is unchanged. A string is always stored: the null string
 * when nothing was found or the call failed. Null out pointers are accepted. */
#define QEL_C_DICTIONARY(type, in, out)                                              \
    QEL_API type* type##_create(void);                                               \
    QEL_API int type##_getcount(type* d);                                            \
    QEL_API unsigned char type##_find(type* d, const char* key, out* value);         \
    QEL_API void type##_set(type* d, const char* key, in value);                     \
    QEL_API unsigned char type##_getbyindex(type* d, int slot, out* value);          \
    QEL_API unsigned char type##_getkeybyindex(type* d, int slot, __xstring_c* key); \
    QEL_API void type##_setbyindex(type* d, int slot, in value);                     \
    QEL_API void type##_remove(type* d, const char* key);                            \
    QEL_API void type##_removebyindex(type* d, int slot);                            \
    QEL_API xrttiobject* type##_getclassrtti_c(void)

QEL_C_DICTIONARY(xbooldictionary, unsigned char, unsigned char);
QEL_C_DICTIONARY(xintdictionary, int, int);
QEL_C_DICTIONARY(xrealdictionary, double, double);
QEL_C_DICTIONARY(xstringdictionary, const char*, __xstring_c);

#undef QEL_C_SEQUENCE
#undef QEL_C_DICTIONARY

#ifdef __cplusplus
}
#endif

#endif
