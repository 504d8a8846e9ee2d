/* Servers found by name, for callers written in C. The conventions are those of <qel/qelstd_c.h>. */
#ifndef QEL_NETFIND_C_H
#define QEL_NETFIND_C_H

#include <qel/qelstd_c.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Returns the port of the server `name`, as this machine's name server knows it now, and its host in `host`. A
 * failure makes netlib::XException current, and returns xuninitint with the null string in `host`. */
QEL_API int netfind_c(const char* name, __xstring_c* host);

#ifdef __cplusplus
}
#endif

#endif
