#include <qel/base/lockfilebuf.h>

#include <cerrno>
#include <cstdlib>
#include <ios>
#include <memory>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int attempts = 10000; // to catch a file that others keep replacing
constexpr mode_t keptBits = 07777;

template<typename Call>
auto retried(Call call)
{
    auto result = call();
    while (result == -1 && errno == EINTR)
        result = call();
    return result;
}

/// Closes a descriptor and keeps errno.
void closeQuietly(int& descriptor)
{
    const int error = errno;
    if (descriptor >= 0)
        close(descriptor);
    descriptor = -1;
    errno = error;
}

bool writeAll(int file, const char* content, std::size_t size)
{
    while (size > 0) {
        const ssize_t count = retried([&] { return write(file, content, size); });
        if (count < 0)
            return false;
        content += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

/// Whether a new file cannot stand beside the old one, so that the old one has to be overwritten.
bool isKeptOut(int error)
{
    return error == EACCES || error == EPERM || error == EROFS || error == ENAMETOOLONG;
}

/// The new file beside the old one, gone again unless it took the old one's place.
class Successor
{
public:
    Successor(int directory, const std::string& oldName) : folder(directory), name("." + oldName + ".new")
    {
        // Left over from a process that was ended; nobody else uses the name while the old file is locked.
        unlinkat(folder, name.c_str(), 0);
        file = retried([&] {
            return openat(folder, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                          S_IRUSR | S_IWUSR);
        });
        exists = file >= 0;
    }
    ~Successor()
    {
        const int error = errno;
        closeQuietly(file);
        if (exists)
            unlinkat(folder, name.c_str(), 0);
        errno = error;
    }
    Successor(const Successor&) = delete;
    Successor& operator=(const Successor&) = delete;

    bool isOpen() const { return file >= 0; }

    /// Takes owner and mode of the old file. False when this process may not give it to that owner.
    bool takeStatus(const struct stat& old)
    {
        struct stat mine;
        if (fstat(file, &mine) != 0)
            return false;
        if ((mine.st_uid != old.st_uid || mine.st_gid != old.st_gid) &&
            fchown(file, old.st_uid, old.st_gid) != 0)
            return false;
        return fchmod(file, old.st_mode & keptBits) == 0;
    }

    bool fill(const char* content, std::size_t size)
    {
        if (!writeAll(file, content, size) || retried([&] { return fsync(file); }) != 0)
            return false;
        const int closed = close(file);
        file = -1;
        return closed == 0;
    }

    bool takePlaceOf(const std::string& oldName)
    {
        if (renameat(folder, name.c_str(), folder, oldName.c_str()) != 0)
            return false;
        exists = false;
        // The name is durable with its directory; where that cannot be asked for, it will be in time.
        int directory = openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (directory >= 0)
            fsync(directory);
        closeQuietly(directory);
        return true;
    }

private:
    int folder;
    std::string name;
    int file = -1;
    bool exists = false;
};

bool overwrite(int file, const char* content, std::size_t size)
{
    return lseek(file, 0, SEEK_SET) == 0 && writeAll(file, content, size) &&
           retried([&] { return ftruncate(file, static_cast<off_t>(size)); }) == 0 && fsync(file) == 0;
}

} // namespace

lockFileBuf::~lockFileBuf()
{
    release();
}

void lockFileBuf::release()
{
    closeQuietly(folder);
    closeQuietly(file);
    setg(nullptr, nullptr, nullptr);
    failed = false;
}

bool lockFileBuf::Open(const char* path, int mode, int permissions)
{
    release();
    const int flags = (mode & static_cast<int>(std::ios_base::out)) != 0 ? O_RDWR | O_CREAT : O_RDONLY;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (!openOnce(path, flags, permissions))
            return true;
        if (locate(path))
            return false;
        release();
    }
    errno = ESTALE;
    return true;
}

bool lockFileBuf::openOnce(const char* path, int flags, int permissions)
{
    // O_NONBLOCK: a pipe is refused, not waited on.
    struct stat status;
    file = retried([&] { return open(path, flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, permissions); });
    if (file < 0 || fstat(file, &status) != 0)
        return false;
    if (!S_ISREG(status.st_mode)) {
        errno = EACCES;
        return false;
    }
    const int kind = (flags & O_ACCMODE) == O_RDWR ? LOCK_EX : LOCK_SH;
    return retried([&] { return flock(file, kind); }) == 0;
}

/// Finds the directory that holds the file. False when the file at `path` is another one by now.
bool lockFileBuf::locate(const char* path)
{
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(path, nullptr), &std::free);
    if (real == nullptr)
        return false;
    const std::string whole = real.get();
    const std::size_t last = whole.rfind('/') + 1;
    name = whole.substr(last);
    folder = open(whole.substr(0, last).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    struct stat there, mine;
    return folder >= 0 && fstatat(folder, name.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0 &&
           fstat(file, &mine) == 0 && there.st_dev == mine.st_dev && there.st_ino == mine.st_ino;
}

bool lockFileBuf::Close()
{
    const int descriptor = file;
    file = -1;
    release();
    if (descriptor < 0) {
        errno = EBADF;
        return true;
    }
    return close(descriptor) != 0 && errno != EINTR; // closed all the same then
}

bool lockFileBuf::Replace(const char* content, std::size_t size)
{
    struct stat old;
    if (fstat(file, &old) != 0)
        return true;
    // Made read-only meanwhile, it stays as it is.
    if (faccessat(folder, name.c_str(), W_OK, AT_EACCESS) != 0 && errno != ENOENT)
        return true;
    if (old.st_nlink > 1)
        return !overwrite(file, content, size);
    Successor next(folder, name);
    if (next.isOpen() ? !next.takeStatus(old) : isKeptOut(errno))
        return !overwrite(file, content, size);
    return !(next.isOpen() && next.fill(content, size) && next.takePlaceOf(name));
}

lockFileBuf::int_type lockFileBuf::underflow()
{
    const ssize_t count = retried([&] { return read(file, buffer, sizeof buffer); });
    failed = count < 0;
    if (count <= 0)
        return traits_type::eof();
    setg(buffer, buffer, buffer + count);
    return traits_type::to_int_type(buffer[0]);
}
