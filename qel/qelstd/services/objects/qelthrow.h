#pragma once

#include <qel/qelexport.h>

class xany;
class xobject;
class xrtti;
class xrttiobject;

// Failures thrown by objects and collections. Their exception classes are in qelexception.h, a layer above.

/// Each of these throws the exception of its name, for code in headers.
[[noreturn]] QEL_API void qelhThrowInvalidSeqIndex(xobject* obj, int index);
[[noreturn]] QEL_API void qelhThrowInvalidDictIndex(xobject* obj, int index);
[[noreturn]] QEL_API void qelhThrowInvalidDictKey(xobject* obj, const char* key);
[[noreturn]] QEL_API void qelhThrowInvalidArrayIndex(xobject* obj, int dimension, int index);
[[noreturn]] QEL_API void qelhThrowNegativeIndex(int index);
[[noreturn]] QEL_API void qelhThrowNotInitialized();
[[noreturn]] QEL_API void qelhThrowRefCountable(xobject* obj);
/// Throws qelXNativeException: a number does not fit, or is a marker.
[[noreturn]] QEL_API void qelThrowOutOfRange();
[[noreturn]] QEL_API void qelThrowTypeMismatch(xrttiobject* expected, xobject* p);

/// Throws qelXNull when `value` is null, else qelXTypeMismatch.
[[noreturn]] void qelThrowInvalid(xrtti* expected, const xany& value);
