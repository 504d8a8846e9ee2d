#pragma once

// The basis of the framework's classes: root, handles, class macros, throwables.
#include <qel/qelobject.h>
#include <qel/xhandle.h>
#include <qel/xroot.h>
#include <qel/xthrowable.h>
