#pragma once

// Typed streams over files, pipes, memory and the standard streams, and the byte forms of their values.

#include <qel/iobasestream.h>
#include <qel/iofilestream.h>
#include <qel/iopipe.h>
#include <qel/ioserializer.h>
#include <qel/iostringstream.h>
