#pragma once

#include <memory>

#include <qel/xobject.h>

namespace qel {

/// The owner of an object whose class is not countable: a stream, a server, an event, a process. Its
/// destructor frees the object with xdelete. A null owner is empty.
template<class T>
using owned = std::unique_ptr<T, qelDelete>;

/// Returns an owner of `p`, which the caller owned. Null gives an empty owner.
///
///     const auto server = qel::own(netServer::Create("words", 0));
template<class T>
owned<T> own(T* p)
{
    if constexpr (requires { T::qelCounted; })
        static_assert(!T::qelCounted, "objects of this class are counted: hold them by xrchandle");
    return owned<T>(p);
}

} // namespace qel
