#pragma once

// The whole public interface of the core. One header per library exists too; a source that defines classes of
// its own adds <qel/qeltable.h>, and C programs use <qel/qelstd_c.h>.

#include <qel/qelexception.h>
#include <qel/qelprint.h>
#include <qel/qelrtti.h>
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
