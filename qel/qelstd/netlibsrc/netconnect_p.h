#pragma once

#include <memory>

#include <qel/base/btksocket.h>

class netAddress;

/// A socket that is connected to `address`; null when nobody answers there within `limit`.
/// @throws netXException  as ResolvePort
std::unique_ptr<btkStreamSocket> netConnect(netAddress* address, btkTimeval limit);
