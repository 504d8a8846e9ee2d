#pragma once

#include <qel/xrtti.h>

class xrttiattrseq;

// The registry of types by name, what other layers keep with a type, and the built-in types. Safe to call
// from any thread; looking something up takes no lock. None of these functions fails unless it says so, but
// for want of memory.

/// Registers `type` under its name. A name that is registered already gets the new descriptor; the old one
/// lives on. Null, and a descriptor without a name: nothing.
QEL_API void qelRttiAddToMap(xrtti* type);
/// The registered descriptor of that name, or null.
QEL_API xrtti* qelRttiGetFromMap(const char* name);
/// Calls `visit(type, context)` for every registered descriptor in the order of names. Those that are
/// registered meanwhile are left out.
QEL_API void qelRttiForEach(void (*visit)(xrtti* type, void* context), void* context);

/// The name of the type in C++, "fsNodeInfo", for a class or enumeration that a qelRegister names; null for
/// others.
QEL_API xstring qelRttiCppName(xrtti* type);
/// A new object, made without arguments, of the class that is registered as `typeName` and that a qelRegister
/// names. Null when there is none, or its objects cannot be made so. The caller attaches it, or frees it with
/// xdelete when its class is not countable. Lets through what the constructor throws.
QEL_API xobject* qelRttiCreate(const char* typeName);

/// Keeps `data` with `type` under `key`; both pointers must outlive the type. A type with a name is
/// registered if its name is not; if another descriptor has the name, that one gets the data too.
QEL_API void qelRttiAddUserData(xrtti* type, const char* key, void* data);
/// What was kept with `type`, or with the registered descriptor of the same name, under `key`; or null.
QEL_API void* qelRttiGetUserData(xrtti* type, const char* key);
/// What was kept with the registered descriptor of that name under `key`; or null.
QEL_API void* qelRttiGetUserData(const char* typeName, const char* key);

/// Appends the attributes of `type` to `out`: with `inherited`, those of its parents first, the most basic
/// class's first of all; those of a base that is reached in several ways come once for each. The attributes
/// are not owned by the list.
/// @throws qelXTypeMismatch  a parent of a structure is no structure
QEL_API void qelRttiCollectAttrs(xrttistruct* type, unsigned char inherited, xrttiattrseq* out);
/// The same into a new list, which the caller frees with xdelete.
QEL_API xrttiattrseq* qelRttiCollectAttrs(xrttistruct* type, unsigned char inherited);

QEL_API xrttibasic* qelGetRtti_bool();
QEL_API xrttibasic* qelGetRtti_int();
QEL_API xrttibasic* qelGetRtti_real();
QEL_API xrttibasic* qelGetRtti_string();
/// Every type is a kind of it; null and uninit variants report it.
QEL_API xrttibasic* qelGetRtti_any();
/// Every class is a kind of it.
QEL_API xrttiobject* qelGetRtti_object();
