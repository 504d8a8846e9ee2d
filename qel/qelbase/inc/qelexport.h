#ifndef QEL_QELEXPORT_H
#define QEL_QELEXPORT_H

/* Marks the symbols that libqelstd.so exports. An application's library marks the classes it exports, too. */
#define QEL_API __attribute__((visibility("default")))

#endif
