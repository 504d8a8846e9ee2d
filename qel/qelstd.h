#pragma once

// The whole public interface. Each library also has its own headers; a source that defines classes adds
// <qel/qeltable.h>, and C programs use <qel/qelstd_c.h>. What needs more of the standard library is in headers
// of its own: <qel/qelcpp.h> for the namespace `qel`, qelserver.h, qelfind.h, qelloop.h, qeljson.h, qelpath.h,
// qelformat.h.

// ---- the core
#include <qel/qelcaught.h>
#include <qel/qelexception.h>
#include <qel/qelprint.h>
#include <qel/qelrtti.h>
#include <qel/qels11n.h>
#include <qel/qeltraverse.h>
#include <qel/qelversion.h>
#include <qel/xany.h>
#include <qel/xdictionary.h>
#include <qel/xerrhandler.h>
#include <qel/xobject.h>
#include <qel/xportexception.h>
#include <qel/xrtti.h>
#include <qel/xrttiattrseq.h>
#include <qel/xsequence.h>
#include <qel/xstring.h>

// ---- the service libraries
#include <qel/evteventarray.h>
#include <qel/filelib.h>
#include <qel/hmxconfigfile.h>
#include <qel/nmsproxy.h>
#include <qel/pcprocess.h>
#include <qel/reglib.h>
#include <qel/rshprocess.h>
#include <qel/rshserver.h>
#include <qel/syslib.h>
#include <qel/tmexception.h>
#include <qel/tmtime.h>
#include <qel/xiolib.h>
#include <qel/xmonlib.h>
#include <qel/xnetlib.h>
