#pragma once

/// Where `qel rshd` listens, and `qel rsh` asks, unless they are told otherwise.
inline constexpr int usualShellPort = 1240;
