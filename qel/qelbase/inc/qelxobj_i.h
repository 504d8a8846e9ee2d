/* The part of the object model that C and C++ share: the reserved marker values and the plain structures of
 * strings and variants.
 *
 * Every basic type reserves two values: "no value" (null) and "never set" (uninit). Pointer variables hold
 * the pointer markers, which are never dereferenced. */
#ifndef QEL_QELXOBJ_I_H
#define QEL_QELXOBJ_I_H

#include <stdint.h>

#include <qel/qelexport.h>

#ifdef __cplusplus
class btkStrBuf;
class xobject;
class xrtti;
class xrttiobject;
class xthrowable;
#else
typedef struct btkStrBuf btkStrBuf;
typedef struct xobject xobject;
typedef struct xrtti xrtti;
typedef struct xrttiobject xrttiobject;
typedef struct xthrowable xthrowable;
#endif

/* The layouts below, and markers in pointers, are those of 64-bit hosts. */
typedef char qelRequires64Bits[sizeof(void*) == 8 ? 1 : -1];

/* ---- markers: null and uninit of int (and enumeration values), bool, real, string, object */

#define xnullint (-2147483647 - 1)             /* no value */
#define xuninitint (-2147483647)               /* never set */
#define xnullbool ((unsigned char)128)         /* no value */
#define xuninitbool ((unsigned char)129)       /* never set */
#define xnullreal 0x1.7a2ecc414a04p+418        /* bits 0x5A17A2ECC414A040 */
#define xuninitreal 0x1.545d516df5d06p+418     /* bits 0x5A1545D516DF5D06, 9e125 */
#define xnullstr ((const char*)(uintptr_t)1)   /* so is the null pointer */
#define xuninitstr ((const char*)(uintptr_t)2) /* never set */
#define xuninitobj ((xobject*)(uintptr_t)22)   /* null is the null pointer */

/* A string: holds one reference to its buffer, or is null (no buffer, both texts the marker 1). */
typedef struct __xstring_c
{
    /* The text's owner, which counts references. */
    btkStrBuf* buffer;
    char* mb;             /* UTF-8 text in the buffer; null: not produced yet */
    unsigned short* wide; /* UTF-16 text in the buffer; null: not produced yet */
} __xstring_c;

/* ---- kinds of variants */

enum {
    xanyUninit = 0,
    xanyNull = 1,
    xanyInt = 2,
    xanyBool = 3,
    xanyReal = 4,
    xanyString = 5,
    xanyEnum = 6,
    xanyObject = 7
};

/* A variant: 32 bytes, the payload at byte 8. */
typedef struct __xany_c
{
    int32_t tag; /* one of the constants above */
    union
    {
        int32_t intValue;
        unsigned char boolValue;
        double realValue;
        __xstring_c stringValue; /* one reference to its buffer */
        struct
        {
            int32_t value;
            xrtti* type;
        } enumValue;
        xobject* objectValue; /* one counted reference */
    } u;                      /* the payload of that kind */
} __xany_c;

#endif
