#pragma once

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

// File calls that fail on demand, in this process. Include it in the only source of a test program: its
// functions replace the C library's, for the shared libraries too.

namespace failing {

/// In place of an error number: the failing call kills the process.
constexpr int killed = -1;

/// Whether the file system appears not to support files without names.
inline bool unnamedFilesMissing = false;

inline thread_local int callsLeft = -1; // until one fails; negative: none fails
inline thread_local int callError = 0;
inline thread_local const char* struckCall = nullptr;

inline bool strikes(const char* call)
{
    if (callsLeft < 0 || callsLeft-- > 0)
        return false;
    struckCall = call;
    if (callError == killed)
        kill(getpid(), SIGKILL);
    errno = callError;
    return true;
}

/// During its lifetime, the call of this thread that follows `after` others fails with `error`.
class FailingCall
{
public:
    FailingCall(int after, int error)
    {
        struckCall = nullptr;
        callError = error;
        callsLeft = after;
    }
    FailingCall(const FailingCall&) = delete;
    FailingCall& operator=(const FailingCall&) = delete;
    ~FailingCall() { Stop(); }

    static void Stop() { callsLeft = -1; }
    /// The name of the call that has failed; null: there were fewer calls.
    static const char* Struck() { return struckCall; }
};

/// The C library's function of that name.
template<class Function>
Function* original(const char* name)
{
    void* const found = dlsym(RTLD_NEXT, name);
    if (found == nullptr)
        std::abort();
    return reinterpret_cast<Function*>(found);
}

} // namespace failing

#define QEL_FAILING_CALL(result_, name_, parameters_, ...)                        \
    extern "C" [[gnu::visibility("default")]] result_ name_ parameters_           \
    {                                                                             \
        static auto* const call = failing::original<result_ parameters_>(#name_); \
        return failing::strikes(#name_) ? (result_)-1 : call(__VA_ARGS__);        \
    }

QEL_FAILING_CALL(int, stat, (const char* path, struct stat* status), path, status)
QEL_FAILING_CALL(int, lstat, (const char* path, struct stat* status), path, status)
QEL_FAILING_CALL(int, fstat, (int file, struct stat* status), file, status)
QEL_FAILING_CALL(int, fstatat, (int folder, const char* name, struct stat* status, int flags), folder, name,
                 status, flags)
QEL_FAILING_CALL(int, dup3, (int from, int to, int flags), from, to, flags)
QEL_FAILING_CALL(ssize_t, read, (int file, void* to, std::size_t size), file, to, size)
QEL_FAILING_CALL(ssize_t, pread, (int file, void* to, std::size_t size, off_t at), file, to, size, at)
QEL_FAILING_CALL(ssize_t, write, (int file, const void* from, std::size_t size), file, from, size)
QEL_FAILING_CALL(ssize_t, pwrite, (int file, const void* from, std::size_t size, off_t at), file, from, size,
                 at)
QEL_FAILING_CALL(off_t, lseek, (int file, off_t distance, int from), file, distance, from)
QEL_FAILING_CALL(ssize_t, copy_file_range,
                 (int from, off64_t* start, int to, off64_t* at, std::size_t size, unsigned flags), from,
                 start, to, at, size, flags)
QEL_FAILING_CALL(ssize_t, sendfile, (int to, int from, off_t* start, std::size_t size), to, from, start, size)
QEL_FAILING_CALL(int, fallocate, (int file, int mode, off_t from, off_t size), file, mode, from, size)
QEL_FAILING_CALL(int, ftruncate, (int file, off_t size), file, size)
QEL_FAILING_CALL(int, fsync, (int file), file)
QEL_FAILING_CALL(int, fchmod, (int file, mode_t mode), file, mode)
QEL_FAILING_CALL(int, fchown, (int file, uid_t user, gid_t group), file, user, group)
QEL_FAILING_CALL(int, futimens, (int file, const struct timespec* times), file, times)
QEL_FAILING_CALL(ssize_t, flistxattr, (int file, char* names, std::size_t size), file, names, size)
QEL_FAILING_CALL(ssize_t, fgetxattr, (int file, const char* name, void* value, std::size_t size), file, name,
                 value, size)
QEL_FAILING_CALL(int, fsetxattr, (int file, const char* name, const void* value, std::size_t size, int flags),
                 file, name, value, size, flags)
QEL_FAILING_CALL(ssize_t, getrandom, (void* to, std::size_t size, unsigned flags), to, size, flags)
QEL_FAILING_CALL(int, linkat, (int from, const char* old, int to, const char* name, int flags), from, old, to,
                 name, flags)
QEL_FAILING_CALL(int, symlinkat, (const char* text, int folder, const char* name), text, folder, name)
QEL_FAILING_CALL(int, renameat, (int from, const char* old, int to, const char* name), from, old, to, name)
QEL_FAILING_CALL(int, renameat2, (int from, const char* old, int to, const char* name, unsigned flags), from,
                 old, to, name, flags)
QEL_FAILING_CALL(int, unlinkat, (int folder, const char* name, int flags), folder, name, flags)

// A close that fails has nevertheless closed the descriptor.
extern "C" [[gnu::visibility("default")]] int close(int file)
{
    static auto* const call = failing::original<int(int)>("close");
    const int result = call(file);
    return failing::strikes("close") ? -1 : result;
}

extern "C" [[gnu::visibility("default")]] int open(const char* path, int flags, ...)
{
    static auto* const call = failing::original<int(const char*, int, ...)>("open");
    std::va_list arguments;
    va_start(arguments, flags);
    const auto mode = va_arg(arguments, mode_t);
    va_end(arguments);
    return failing::strikes("open") ? -1 : call(path, flags, mode);
}

extern "C" [[gnu::visibility("default")]] int openat(int folder, const char* path, int flags, ...)
{
    static auto* const call = failing::original<int(int, const char*, int, ...)>("openat");
    std::va_list arguments;
    va_start(arguments, flags);
    const auto mode = va_arg(arguments, mode_t);
    va_end(arguments);
    if (failing::unnamedFilesMissing && (flags & O_TMPFILE) == O_TMPFILE) {
        errno = EOPNOTSUPP;
        return -1;
    }
    return failing::strikes("openat") ? -1 : call(folder, path, flags, mode);
}

extern "C" [[gnu::visibility("default")]] int fcntl(int file, int command, ...)
{
    static auto* const call = failing::original<int(int, int, ...)>("fcntl");
    std::va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return failing::strikes("fcntl") ? -1 : call(file, command, argument);
}

extern "C" [[gnu::visibility("default")]] char* realpath(const char* path, char* resolved)
{
    static auto* const call = failing::original<char*(const char*, char*)>("realpath");
    return failing::strikes("realpath") ? nullptr : call(path, resolved);
}
