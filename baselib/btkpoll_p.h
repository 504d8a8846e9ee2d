#pragma once

#include <cstddef>
#include <poll.h>

#include <qel/base/btktimeval.h>

/// `poll` with a limit that counts across interruptions. Answers as `poll` does, but never EINTR.
int btkPoll(pollfd* asked, std::size_t count, btkTimeval limit);
