#pragma once

#include <qel/base/btkabort.h>

/// A fatal report with a fixed place. The file and the line are a part of its text, by which logs and the
/// programs that watch them know it. They name no source of this tree, and stay when sources change.
struct qelFatal
{
    const char* message;
    const char* file;
    int line;

    [[noreturn]] void Report() const { _Abort(message, file, line); }
};

inline constexpr qelFatal netNoExitCode{"netThread::GetExitCode: ExitCode not available",
                                        "qel/qelstd/netlibsrc/netthread", 239};

// Operations that are missing on operating systems without a service shell.
inline constexpr const char* netMissing = "qel/qelstd/netlibsrc/netlibnew";
inline constexpr qelFatal netNoCreate{"QEL generated function not implemented!", netMissing, 1264};
inline constexpr qelFatal netNoReportStarting{"netService::ReportStarting", netMissing, 1315};
inline constexpr qelFatal netNoReportRunning{"netService::ReportRunning", netMissing, 1321};
inline constexpr qelFatal netNoReportPaused{"netService::ReportPaused", netMissing, 1327};
inline constexpr qelFatal netNoIsStopped{"netService::IsStopped", netMissing, 1333};
inline constexpr qelFatal netNoIsPaused{"netService::IsPaused", netMissing, 1340};
inline constexpr qelFatal netNoIsReleased{"netService::IsReleased", netMissing, 1347};
inline constexpr qelFatal netNoDoPause{"netService::DoPause", netMissing, 1354};

inline constexpr qelFatal nmsNoClear{"nmsRecord::Clear not implemented.", "qel/qelstd/srcnmscm/recnms", 131};

inline constexpr qelFatal rshNoPipe{"Can not create pipe", "qel/qelstd/netlibsrc/rshlib", 183};
inline constexpr qelFatal rshProcessNotStarted{"rshProcess: the thread is not started",
                                               "qel/qelstd/netlibsrc/rshlib", 515};
inline constexpr qelFatal rshServerNotStarted{"rshServer: the thread is not started",
                                              "qel/qelstd/netlibsrc/rshlib", 846};
inline constexpr qelFatal rshNoConnection{"rshConnection::Create not implemented",
                                          "qel/qelstd/netlibsrc/rshclnt", 29};
