#pragma once

#include <qel/base/btkfd.h>

/// Notices what any process does to one file: that bytes, size or attributes change, that it is renamed, that
/// it loses a name. What is stored through mapped pages is not noticed (btkPartWriter makes it known).
class BASE_API btkFileWatch
{
public:
    /// Watches the open file from now on, in place of what was watched before. False when there is no
    /// descriptor or no watch left; nothing is watched then, and the reason is in errno.
    bool Begin(btkHandle file);
    void End() { news.Reset(); }
    /// A descriptor that is readable once something has happened since Begin or Forget; -1 while nothing is
    /// watched.
    btkHandle Get() const { return news.Get(); }
    void Forget();

private:
    btkFd news;
};
