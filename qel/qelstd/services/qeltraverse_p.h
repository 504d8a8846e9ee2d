#pragma once

#include <qel/qeltraverse.h>

/// qelTraverse for a visitor that does not look at the objects that own the parts: all its handles to them
/// are null, which saves counting.
void qelTraverseUnseen(xany value, qelTraverser* visitor);
