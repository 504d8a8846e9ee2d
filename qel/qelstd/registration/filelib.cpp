#include "filelib.h"

#include "qeltable.h"
#include "registrars_p.h"

qelRttiRegister_filelib::qelRttiRegister_filelib()
{
    qelRegister<fsOpMode, fsSoftLinkCopyMode, fsRecursiveCopyMode, fsNodeType, fsNodeInfo, fsXException,
                fsXIOError, fsXQuotaExhausted, fsXDiskFull, fsXInvalidName, fsXInvalidPath, fsXDoesNotExist,
                fsXFileExists, fsXLinksNotSupported, fsXNoPermission, fsXSignal, fsXOther>();
}
