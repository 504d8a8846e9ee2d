#pragma once

// Streams over connections, and the addresses of servers.

#include <qel/netaddress.h>
#include <qel/netexception.h>
#include <qel/netsocketstream.h>
