#pragma once

#include <qel/qelown.h>

/// Owns an object of a class that is not counted.
template<class T>
using Owned = qel::owned<T>;
