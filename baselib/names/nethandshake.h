#pragma once

#include <string>

#include <qel/base/btksocket.h>

// The opening exchange between a client and a versioned server; the only place that defines its codes and
// bytes.

/// The first byte of a connection. The reply to a ping is the byte 1, to the others a verdict. An admitted
/// version request gets one more byte, the size of what follows: the text with its terminating zero.
enum class netRequestCode : unsigned char { open = 0, ping = 1, version = 2, shutdown = 3 };

/// The verdicts.
inline constexpr unsigned char netRefused = 0;
inline constexpr unsigned char netAdmitted = 1;

/// Sends the code and reads the reply byte, within the limits of `socket`, which is connected. -1: no reply.
BASE_API int netAsk(btkStreamSocket& socket, netRequestCode code);
/// Reads the version text after an admitted version request. False when it is incomplete; `text` gets the
/// part received.
BASE_API bool netReadVersion(btkStreamSocket& socket, std::string& text);
