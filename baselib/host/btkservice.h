#pragma once

#include <string>

#include <qel/base/btkfd.h>

/// For programs that a service manager runs as services, in the way of systemd. Call these before the program
/// starts threads.

/// Reports that the program is ready to serve; `status` is one line for the administrator. Children of this
/// process will not find the manager. False when no manager waits for the report, or it cannot be sent.
BASE_API bool btkReportReady(const std::string& status);

/// Returns the listening TCP socket that the manager has opened for this process. Owns nothing when there is
/// none, and when the manager has passed anything else. Only the first call returns it.
BASE_API btkFd btkTakePassedSocket();

/// Whether this process has the superuser's rights.
BASE_API bool btkIsSuperuser();
