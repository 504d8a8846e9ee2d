#pragma once

// One registrar for each namespace: its constructor builds and registers every descriptor of the namespace,
// in order.

#define QEL_REGISTRAR(lib)       \
    struct qelRttiRegister_##lib \
    {                            \
        qelRttiRegister_##lib(); \
    }

QEL_REGISTRAR(qeljava);
QEL_REGISTRAR(qellib);
QEL_REGISTRAR(stdcols);
QEL_REGISTRAR(eventlib);
QEL_REGISTRAR(iolib);
QEL_REGISTRAR(filelib);
QEL_REGISTRAR(reglib);
QEL_REGISTRAR(syslib);
QEL_REGISTRAR(timelib);
QEL_REGISTRAR(monlib);
QEL_REGISTRAR(proclib);
QEL_REGISTRAR(netlib);
QEL_REGISTRAR(nmsclib);
QEL_REGISTRAR(rshlib);
QEL_REGISTRAR(buildintypes);
QEL_REGISTRAR(xrtti);
