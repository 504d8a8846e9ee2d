#include "pcprocess.h"
#include "qeltable.h"
#include "registrars_p.h"

qelRttiRegister_proclib::qelRttiRegister_proclib()
{
    qelRegister<pcProcess, pcEvent, pcXException, pcCreateError, pcXCreate, pcXProcess, pcProcessStatus,
                pcInterruptEvent>();
}
