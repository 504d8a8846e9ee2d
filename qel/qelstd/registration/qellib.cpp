#include "qelexception.h"
#include "qeljson.h"
#include "qels11n.h"
#include "qeltable.h"
#include "registrars_p.h"

qelRttiRegister_qellib::qelRttiRegister_qellib()
{
    qelRegister<qelXException, qelXArgs, qelXFunc, qelXExternFunc, qelXNull, qelXTypeMismatch,
                qelXInvalidArrayIndex, qelXInvalidSeqIndex, qelXInvalidDictIndex, qelXInvalidDictKey,
                qelXNegativeIndex, qelXNotInitialized, qelXRefCountable, qelXNativeException,
                qelXConnectionClosed, qelXS11nException, qelXSoapFault, qelXJson, qelS11nContextSensitive>();
}
