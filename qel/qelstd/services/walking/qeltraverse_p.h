#pragma once

#include <qel/qeltraverse.h>

/// qelTraverse for a visitor that neither uses the objects that own the parts nor acts on the end of an
/// attribute, an element, a discriminator or a union's member: the handles to the objects are null, and those
/// ends are not reported. This saves a third of the walk's work.
void qelTraverseForPrinter(xany value, qelTraverser* visitor);
