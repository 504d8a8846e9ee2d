#pragma once

#include <qel/xrtti.h>

class xrttiattrseq;

// The registry of types by name, the data that other layers attach to a type, and the built-in types. Safe to
// call from any thread; lookups take no lock. Unless documented otherwise, these functions fail only when
// memory runs out.

/// Registers `type` under its name. If the name is already registered, it now refers to the new descriptor;
/// the old descriptor stays valid. Ignores null and a descriptor without a name.
QEL_API void qelRttiAddToMap(xrtti* type);
/// Returns the descriptor registered under that name, or null.
QEL_API xrtti* qelRttiGetFromMap(const char* name);
/// Calls `visit(type, context)` for every registered descriptor in the order of names. Descriptors registered
/// during the call are skipped.
QEL_API void qelRttiForEach(void (*visit)(xrtti* type, void* context), void* context);

/// Returns the C++ name of the type, such as "fsNodeInfo", for a class or enumeration named in a qelRegister;
/// null for others.
QEL_API xstring qelRttiCppName(xrtti* type);
/// Returns a new default-constructed object of the class that is registered as `typeName` and named in a
/// qelRegister. Null when no such class exists or its objects cannot be default-constructed. The caller
/// attaches the object, or frees it with xdelete when its class is not countable. Exceptions of the
/// constructor pass through.
QEL_API xobject* qelRttiCreate(const char* typeName);

/// Attaches `data` to `type` under `key`; both pointers must outlive the type. Registers `type` if it has a
/// name that is not registered; if another descriptor is registered under the name, the data is attached to
/// that one too.
QEL_API void qelRttiAddUserData(xrtti* type, const char* key, void* data);
/// Returns the data attached under `key` to `type`, or to the descriptor registered under the same name; or
/// null.
QEL_API void* qelRttiGetUserData(xrtti* type, const char* key);
/// Returns the data attached under `key` to the descriptor registered under that name; or null.
QEL_API void* qelRttiGetUserData(const char* typeName, const char* key);

/// Appends the attributes of `type` to `out`; with `inherited`, those of its parents come first, starting
/// with the most basic class. A base reached in several ways contributes its attributes once for each way.
/// The list does not own the attributes.
/// @throws qelXTypeMismatch  a parent of a structure is no structure
QEL_API void qelRttiCollectAttrs(xrttistruct* type, unsigned char inherited, xrttiattrseq* out);
/// Does the same into a new list, which the caller frees with xdelete.
QEL_API xrttiattrseq* qelRttiCollectAttrs(xrttistruct* type, unsigned char inherited);

/// The descriptors of the basic types.
QEL_API xrttibasic* qelGetRtti_bool();
QEL_API xrttibasic* qelGetRtti_int();
QEL_API xrttibasic* qelGetRtti_real();
QEL_API xrttibasic* qelGetRtti_string();
/// The parent of every type; null and uninit variants report it.
QEL_API xrttibasic* qelGetRtti_any();
/// The parent of every class.
QEL_API xrttiobject* qelGetRtti_object();
