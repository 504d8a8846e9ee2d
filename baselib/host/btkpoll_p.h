#pragma once

#include <cstddef>
#include <poll.h>

#include <qel/base/btktimeval.h>

/// `poll` with a limit that counts across interruptions, and for any number of entries: the system takes no
/// more than RLIMIT_NOFILE at once. Returns as `poll` does; what keeps it from looking at the descriptors (no
/// memory) only makes it look again, so that 0 always means that the limit has passed.
int btkPoll(pollfd* asked, std::size_t count, btkTimeval limit);
