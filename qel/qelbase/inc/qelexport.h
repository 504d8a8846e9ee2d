#ifndef QEL_QELEXPORT_H
#define QEL_QELEXPORT_H

/* Marks what libqelstd.so exports. Classes of an application carry it too where its own library exports them.
 */
#define QEL_API __attribute__((visibility("default")))

#endif
