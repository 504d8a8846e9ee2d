#pragma once

#include <optional>
#include <string>

#include <qel/base/btkfd.h>

/// The number of a user of this machine.
using btkUserId = unsigned int;

/// The superuser, who may do everything.
inline constexpr btkUserId btkSuperuser = 0;

/// Returns the user whose process made the peer's end of a TCP connection within this machine: its effective user at
/// that time. Empty when that cannot be known: the peer is on another machine, has closed its end, or belongs to a
/// user that has no number here (`nobody` stands for those, and is never returned); or the operating system does not
/// report users. Does not wait; costs a few system calls. A program that forwards connections has its own user,
/// whoever its clients are. Any thread.
BASE_API std::optional<btkUserId> btkGetPeerUser(btkHandle connection);
/// Whether the operating system reports the users of connections to this process at all: some sandboxes do not.
/// `listening`: a TCP socket of this machine that listens, which is looked up.
BASE_API bool btkReportsPeerUsers(btkHandle listening);

/// Returns this process's effective user.
BASE_API btkUserId btkGetOwnUser();
/// Returns the effective user of a process; empty when there is no such process, or it is not visible.
BASE_API std::optional<btkUserId> btkGetUserOfProcess(unsigned int process);
/// Returns the user of that name, or of that number in decimal digits; empty when there is none.
BASE_API std::optional<btkUserId> btkFindUser(const std::string& name);
