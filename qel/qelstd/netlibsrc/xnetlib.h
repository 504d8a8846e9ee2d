#pragma once

// Streams over connections, the addresses of servers, who may connect to them, and worker threads.

#include <qel/netaddress.h>
#include <qel/netexception.h>
#include <qel/netrights.h>
#include <qel/netservice.h>
#include <qel/netsocketstream.h>
#include <qel/netthread.h>
