#pragma once

#include <memory>
#include <string>

#include <qel/xobject.h>

class monFile;

/// Figures of this process in a monitor file, where `qel top` finds them: NAME-PROCESS-START.mon in the
/// run-time folder, which is RUNTIME_DIRECTORY for a service, or else qelstd in XDG_RUNTIME_DIR. The file is
/// held while the process lives, removed by the destructor, and by the next publisher when the process was
/// killed. Used by one thread at a time. A forked child does not use the object; the parent's file stays when
/// the child destroys it.
///
///     if (const auto statistics = monStatistics::Create("words", "The server of words"))
///         statistics->Set("Requests", 42), statistics->Set("State", "ready");
class QEL_API monStatistics
{
public:
    /// A new file. `name`: characters other than letters, digits, '.', '_' and '-' become '_'. Null when there
    /// is no run-time folder, or the file cannot be written.
    static std::unique_ptr<monStatistics> Create(const std::string& name, const std::string& title);
    ~monStatistics();
    monStatistics(const monStatistics&) = delete;
    monStatistics& operator=(const monStatistics&) = delete;

    /// The path of the operating system.
    const std::string& getPath() const;
    /// Writes the value if it differs from the one written last, and adds the parameter at first. After a
    /// failure to write, for which there is no report, the calls do nothing.
    void Set(const char* name, double value);
    /// The same for a text; its first value decides how long later ones may be.
    void Set(const char* name, const std::string& value);

private:
    struct Inside;

    explicit monStatistics(std::unique_ptr<Inside> made);

    const std::unique_ptr<Inside> inside;
};
