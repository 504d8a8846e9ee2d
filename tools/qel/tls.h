#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

// The command line of `qel tls`, for `qel` and for the program qel-tls, which does the work.

/// Days that certificates and lists are valid for, unless options say otherwise.
inline constexpr int usualCertificateDays = 365;
inline constexpr int usualAuthorityDays = 3650;
inline constexpr int usualListDays = 30;

struct TlsChoices
{
    std::string folder; // an authority's, or one with the files of a program
    std::string name;
    std::vector<std::string> targets; // folders with the files of programs
    std::vector<std::string> hosts;
    bool isServerOnly = false;
    bool isClientOnly = false;
    int days = 0;
    int listDays = usualListDays;
};

/// Called for the command that was named, once its options have been read.
using RunTls = std::function<void(const CLI::App& command, const TlsChoices& choices)>;
/// Adds the commands init, issue, revoke, renew-list and show to the group.
void AddTlsOptions(CLI::App& group, const RunTls& run);
