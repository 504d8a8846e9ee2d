#include "qeltable.h"
#include "registrars_p.h"
#include "xdictionary.h"
#include "xsequence.h"

qelRttiRegister_stdcols::qelRttiRegister_stdcols()
{
    qelRegister<xboolsequence, xintsequence, xrealsequence, xstringsequence, xanysequence, xbooldictionary,
                xrealdictionary, xintdictionary, xstringdictionary, xanydictionary>();
}
