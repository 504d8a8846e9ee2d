#pragma once

#include <qel/xobject.h>

/// What a listener answers: 0, it has not dealt with the error; anything else, it has. What the other values
/// mean is the application's affair.
using xerhstatus = int;

/// One who wants to hear of errors. A class that derives from it says what to do; the destructor takes the
/// listener out of the handler's list.
class QEL_API xerrlistener
{
public:
    /// Called with each error that is reported. Text and handles may be null; what they mean is agreed
    /// between those who report and those who listen.
    virtual xerhstatus onError(const char* text, xrcunihandle<xthrowable> error,
                               xrcunihandle<xobject> subject, xrcunihandle<xobject> context) = 0;

protected:
    ~xerrlistener();
};

/// The list of those who want to hear of errors, one for the process. The library reports nothing to it by
/// itself. Nothing is locked: who uses it from several threads must serialize the calls.
class QEL_API xerrhandler
{
public:
    /// Puts `l` into the list, once. The list refers to it without owning it. Null: nothing.
    static void addlistener(xerrlistener* l);
    /// Takes `l` out of the list if it is there.
    static void removelistener(xerrlistener* l);
    /// Offers an error to the listeners in the order of their addresses until one answers other than 0, and
    /// returns that answer; 0 when there is none. A listener may add and remove listeners and destroy itself
    /// or others meanwhile: one that has been removed is not called, and one that has been added hears of the
    /// next error.
    static xerhstatus dispatch(const char* text, xrcunihandle<xthrowable> error,
                               xrcunihandle<xobject> subject, xrcunihandle<xobject> context);
    /// The number of listeners for which there is room without asking for memory; grows in steps of 64.
    static int getcapacity();
};
