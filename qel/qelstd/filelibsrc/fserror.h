#pragma once

// The former name of this header.

#include <qel/fsexception.h>
