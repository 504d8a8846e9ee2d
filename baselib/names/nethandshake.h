#pragma once

#include <string>

#include <qel/base/btksocket.h>

// What a client of a versioned server sends first, and what it reads: the codes and the bytes stand here.

/// The first byte of a connection. A ping is answered with the byte 1; the others with a verdict, and a
/// version that was admitted with a byte that says how many follow: the text with its ending zero.
enum class netRequestCode : unsigned char { open = 0, ping = 1, version = 2, shutdown = 3 };

/// The verdicts.
inline constexpr unsigned char netRefused = 0;
inline constexpr unsigned char netAdmitted = 1;

/// Sends the code and reads the byte that answers it, within the limits of `socket`, which is connected. -1:
/// none came.
BASE_API int netAsk(btkStreamSocket& socket, netRequestCode code);
/// Reads the version text after an admitted request for it. False when it did not come whole; `text` gets
/// what did.
BASE_API bool netReadVersion(btkStreamSocket& socket, std::string& text);
