#include "registrars_p.h"

// The registrars run in this order, while the library is loaded. Descriptors are built when they are first
// requested, so a registrar may name types whose own registrar comes later.

namespace {

const qelRttiRegister_qeljava qeljava;
const qelRttiRegister_qellib qellib;
const qelRttiRegister_stdcols stdcols;
const qelRttiRegister_eventlib eventlib;
const qelRttiRegister_filelib filelib;
const qelRttiRegister_iolib iolib;
const qelRttiRegister_monlib monlib;
const qelRttiRegister_netlib netlib;
const qelRttiRegister_nmsclib nmsclib;
const qelRttiRegister_proclib proclib;
const qelRttiRegister_reglib reglib;
const qelRttiRegister_rshlib rshlib;
const qelRttiRegister_syslib syslib;
const qelRttiRegister_timelib timelib;
const qelRttiRegister_buildintypes buildintypes;
const qelRttiRegister_xrtti xrtti;

} // namespace
