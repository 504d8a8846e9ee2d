#pragma once

#include <cstddef>
#include <poll.h>

#include <qel/base/btktimeval.h>

/// `poll` with a limit that counts across interruptions, and for any number of entries: the system accepts at
/// most RLIMIT_NOFILE at once. Returns as `poll` does; a lack of memory only makes it retry, so 0 always
/// means that the limit has passed.
int btkPoll(pollfd* asked, std::size_t count, btkTimeval limit);
