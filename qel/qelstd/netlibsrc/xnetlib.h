#pragma once

// Connections, servers, their addresses and connection rights, and worker threads.

#include <qel/netaddress.h>
#include <qel/netbaseserver.h>
#include <qel/netexception.h>
#include <qel/netrights.h>
#include <qel/netserver.h>
#include <qel/netservice.h>
#include <qel/netsocketstream.h>
#include <qel/netthread.h>
#include <qel/nettls.h>
