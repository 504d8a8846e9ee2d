#pragma once

#include <qel/base/btkfd.h>

/// Detects changes to one file by any process: of its bytes, size or attributes, a rename, the loss of a
/// name. Stores through mapped pages are not detected (btkPartWriter announces its own).
class BASE_API btkFileWatch
{
public:
    /// Starts watching the open file, in place of any earlier one. False when no descriptor or watch is left;
    /// nothing is watched then, and the reason is in errno.
    bool Begin(btkHandle file);
    void End() { news.Reset(); }
    /// A descriptor that is readable once a change has happened since Begin or Forget; -1 while nothing is
    /// watched.
    btkHandle Get() const { return news.Get(); }
    void Forget();

private:
    btkFd news;
};
