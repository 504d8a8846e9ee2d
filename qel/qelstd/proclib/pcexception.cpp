#include "pcexception.h"

#include <qel/base/btksystem.h>

#include "pcprocess.h"
#include "qelexceptionrow_p.h"

QEL_LABELS(pcCreateError, "proclib::CreateError", pcBadIn, pcBadOut, pcBadErr, pcTooLongArgs, pcFileNotFound,
           pcCantExecute, pcNoMemory, pcBadWorkDir, pcBadProcessId);

constinit qelClass pcXException::rtti = {
    .name = "proclib::XException",
    .attrs = {QEL_ATTR(Msg, qelOptional)},
};

QEL_EXCEPTION(pcXCreate, pcXException, "proclib::XCreate", qelNotCounted, QEL_ATTR(Error));
QEL_EXCEPTION(pcXProcess, pcXException, "proclib::XProcess", qelNotCounted, QEL_ATTR(Process));

xstring pcXException::getMsg()
{
    return "Process manipulation error";
}

pcXCreate::pcXCreate(pcCreateError error, unsigned long systemError) : Error(error), SystemError(systemError)
{
}

void pcXCreate::Throw(pcCreateError error, unsigned long systemError)
{
    qelThrowNew<self>(error, systemError);
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
