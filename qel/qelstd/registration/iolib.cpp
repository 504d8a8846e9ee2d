#include "qeltable.h"
#include "registrars_p.h"
#include "xiolib.h"

qelRttiRegister_iolib::qelRttiRegister_iolib()
{
    qelRegister<ioEventType, ioStream, ioEvent, ioSerializer, ioTryCode, ioError, ioXStream, ioOpenMode,
                ioDirection, ioFileStream, ioPipeStream, ioPipe, ioStringStream>();
}
