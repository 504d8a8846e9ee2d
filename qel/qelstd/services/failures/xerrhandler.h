#pragma once

#include <qel/xobject.h>

/// A listener's result: 0, it has not handled the error; any other value, it has. The application defines the
/// other values.
using xerhstatus = int;

/// A listener for reported errors. A subclass implements onError; the destructor removes the listener from
/// the handler's list.
///
///     class Log final : public xerrlistener
///     {
///         xerhstatus onError(const char*, xrcunihandle<xthrowable> error, xrcunihandle<xobject>,
///                            xrcunihandle<xobject>) override
///         {
///             std::clog << qelTextOf(error.get()) << '\n';
///             return 1; // handled
///         }
///     };
class QEL_API xerrlistener
{
public:
    /// Called with each reported error. Text and handles may be null; reporters and listeners agree on their
    /// meaning.
    virtual xerhstatus onError(const char* text, xrcunihandle<xthrowable> error,
                               xrcunihandle<xobject> subject, xrcunihandle<xobject> context) = 0;

protected:
    ~xerrlistener();
};

/// The process-wide list of error listeners. The library itself reports only failures of the asynchronous
/// requests of servers, from the threads in which the servers run, one at a time. Nothing is locked: callers
/// on several threads must serialize their calls.
///
///     struct Quiet final : xerrlistener
///     {
///         xerhstatus onError(const char*, xrcunihandle<xthrowable>, xrcunihandle<xobject>,
///                            xrcunihandle<xobject>) override
///         {
///             return 1;
///         }
///     };
///
///     static Quiet quiet;
///     xerrhandler::addlistener(&quiet);
class QEL_API xerrhandler
{
public:
    /// Adds `l` to the list, once. The list refers to it without owning it. Null is ignored.
    static void addlistener(xerrlistener* l);
    /// Removes `l` from the list if present.
    static void removelistener(xerrlistener* l);
    /// Calls the listeners in the order of their addresses until one returns a value other than 0, and
    /// returns that value; 0 if none does. A listener may add and remove listeners and destroy itself or
    /// others meanwhile: a removed listener is not called, and an added one receives the next error.
    static xerhstatus dispatch(const char* text, xrcunihandle<xthrowable> error,
                               xrcunihandle<xobject> subject, xrcunihandle<xobject> context);
    /// Returns the number of listeners that fit into the allocated memory; grows in steps of 64.
    static int getcapacity();
};
