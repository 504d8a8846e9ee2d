#include "pcexception.h"

#include <qel/base/btksystem.h>

#include "pcprocess.h"
#include "qeltable.h"

QEL_LABELS(pcCreateError, "proclib::CreateError", pcBadIn, pcBadOut, pcBadErr, pcTooLongArgs, pcFileNotFound,
           pcCantExecute, pcNoMemory, pcBadWorkDir, pcBadProcessId);

constinit qelClass pcXException::rtti = {
    .name = "proclib::XException",
    .attrs = {QEL_ATTR(Msg, qelOptional)},
};

constinit qelClass pcXCreate::rtti = {
    .name = "proclib::XCreate",
    .parents = {QEL_PARENT(pcXException)},
    .attrs = {QEL_ATTR(Error)},
};

constinit qelClass pcXProcess::rtti = {
    .name = "proclib::XProcess",
    .parents = {QEL_PARENT(pcXException)},
    .attrs = {QEL_ATTR(Process)},
};

xstring pcXException::getMsg()
{
    return "Process manipulation error";
}

pcXCreate::pcXCreate(pcCreateError error, unsigned long systemError) : Error(error), SystemError(systemError)
{
}

void pcXCreate::Throw(pcCreateError error, unsigned long systemError)
{
    xthrow(xrcunihandle<xthrowable>(new (pDefMemMgr) pcXCreate(error, systemError)));
}

xstring pcXCreate::getMsg()
{
    static constexpr struct
    {
        pcCreateError code;
        const char* text;
    } texts[] = {
        {pcCreateCode::badIn, "Stream can not be passed to a process created as an input stream"},
        {pcCreateCode::badOut, "Stream can not be passed to a process created as an output stream"},
        {pcCreateCode::badErr, "Stream can not be passed to a process created as an error stream"},
    };
    for (const auto& [code, text] : texts)
        if (code == Error)
            return text;
    return Error_GetText(SystemError).c_str();
}
