#pragma once

#include <qel/fspathargument.h>
#include <qel/xobject.h>

class tmTime;

/// The kind of a node.
enum fsNodeType : int { fsFile, fsDirectory, fsSoftLink };
QEL_ENUM(fsNodeType);

/// A snapshot of the status of one node, taken by Initialize; later changes of the node are not seen. Soft
/// links are followed. Used by one thread at a time.
///
///     const auto info = qel::make<fsNodeInfo>();
///     if (info->Initialize("/etc/hostname"))
///         std::cout << info->getSize() << " bytes, " << qel::own(info->getModTime())->toIso() << '\n';
class QEL_API fsNodeInfo : public virtual xobject
{
    QEL_OBJECT(fsNodeInfo); // "filelib::NodeInfo", counted

public:
    fsNodeInfo() = default; // describes no node until Initialize has succeeded
    fsNodeInfo(const fsNodeInfo& other);
    fsNodeInfo& operator=(const fsNodeInfo&) = delete;
    ~fsNodeInfo() override;

    /// Takes the status of `path`. True when it worked; otherwise GetLastError() gives the reason and the
    /// object is unchanged.
    unsigned char Initialize(const char* path);
    template<fsPathObject P>
    unsigned char Initialize(const P& path)
    {
        return Initialize(fsPathArgument(path));
    }

    fsNodeType getType();
    /// Time of the last modification; one beyond the year 30828 is clamped to it. The caller owns the new
    /// object and frees it with xdelete.
    tmTime* getModTime();
    /// Size in bytes.
    double getSize();

private:
    /// The same as getModTime, kept by this object.
    tmTime* keptModTime();

    bool valid = false;
    unsigned mode = 0;      // POSIX file type bits
    long long size = 0;     // bytes
    long long modified = 0; // seconds since 1970-01-01 00:00 UTC
    tmTime* kept = nullptr; // the value of the attribute ModTime
};
