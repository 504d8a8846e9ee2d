#pragma once

#include <memory>

#include <qel/xobject.h>

/// Owns an object of a class that is not counted.
template<class T>
using Owned = std::unique_ptr<T, qelDelete>;
