#pragma once

// What every class of the framework is made of.
#include <qel/qelobject.h>
#include <qel/xhandle.h>
#include <qel/xroot.h>
#include <qel/xthrowable.h>
