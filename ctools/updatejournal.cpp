#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include <qel/base/btkreplace.h>

#include "updatejournal_p.h"

namespace {

// The head of the file, then the old content, then the new one.
constexpr std::string_view headBegin = "qelstd update 1 "; // then their sizes
constexpr std::size_t sizeDigits = 20;
constexpr std::size_t headSize = headBegin.size() + 2 * (sizeDigits + 1);

/// The first bytes of a journal for contents of these sizes.
std::string headFor(std::size_t oldSize, std::size_t newSize)
{
    char head[headSize + 1];
    std::snprintf(head, sizeof head, "%s%020zu %020zu\n", headBegin.data(), oldSize, newSize);
    return head;
}

/// The size of the old content in the whole file `text`. False when the file is not a journal.
bool parseHead(const std::string& text, std::size_t& oldSize)
{
    if (text.size() < headSize)
        return false;
    const char* const digits = text.data() + headBegin.size();
    return std::from_chars(digits, digits + sizeDigits, oldSize).ec == std::errc() &&
           oldSize <= text.size() - headSize &&
           text.starts_with(headFor(oldSize, text.size() - headSize - oldSize));
}

/// Whether the owner of `journal` is trusted for the content of `file`. In a sticky folder all users can
/// create files, but not replace those of others.
bool isBelieved(const struct stat& folder, const struct stat& file, const struct stat& journal)
{
    return (folder.st_mode & S_ISVTX) == 0 || journal.st_uid == file.st_uid || journal.st_uid == 0 ||
           journal.st_uid == geteuid() || journal.st_uid == folder.st_uid;
}

/// Whether overwriting `before` with `after`, interrupted anywhere, can have left `now`. The added part may
/// be on the disk as zeros only.
bool isMixture(const std::string& now, const std::string& before, const std::string& after)
{
    if (now.size() < std::min(before.size(), after.size()) ||
        now.size() > std::max(before.size(), after.size()))
        return false;
    for (std::size_t i = 0; i < now.size(); ++i) {
        const bool isOld = i < before.size() ? now[i] == before[i] : now[i] == '\0';
        if (!isOld && (i >= after.size() || now[i] != after[i]))
            return false;
    }
    return true;
}

/// Gives `journal` the read rights of `file`.
bool takeRights(btkHandle file, const struct stat& status, btkHandle journal)
{
    if (btkCopyOwner(file, journal))
        return btkCopyRights(file, journal);
    // The owner then has the rights of others.
    return (status.st_mode & S_IROTH) != 0 && fchown(journal, static_cast<uid_t>(-1), status.st_gid) == 0 &&
           btkCopyRights(file, journal);
}

} // namespace

bool readWhole(btkHandle file, std::string& content)
{
    const long long size = btkGetFileSize(file);
    content.resize(static_cast<std::size_t>(std::max(size, 0LL)));
    const std::ptrdiff_t count = btkReadAt(file, content.data(), content.size(), 0);
    content.resize(static_cast<std::size_t>(std::max<std::ptrdiff_t>(count, 0)));
    return size >= 0 && count >= 0;
}

updateJournal::updateJournal(btkHandle inFolder, btkHandle ofFile) : folder(inFolder), file(ofFile)
{
    struct stat status;
    char text[40];
    if (fstat(file, &status) != 0)
        return;
    std::snprintf(text, sizeof text, ".qelupdate-%016llx", static_cast<unsigned long long>(status.st_ino));
    name = text;
}

bool updateJournal::Find(Standing& standing, std::string& content) const
{
    standing = absent;
    struct stat status, own, around;
    if (fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT;
    if (fstat(file, &own) != 0 || fstat(folder, &around) != 0)
        return false;
    if (!S_ISREG(status.st_mode) || !isBelieved(around, own, status))
        return true;
    std::string whole, now;
    const btkFd journal(openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!journal || !readWhole(journal.Get(), whole) || !readWhole(file, now))
        return false;
    std::size_t oldSize = 0;
    if (!parseHead(whole, oldSize))
        return true;
    content = whole.substr(headSize + oldSize);
    standing = isMixture(now, whole.substr(headSize, oldSize), content) ? current : outdated;
    return true;
}

bool updateJournal::Write(const std::string& oldContent, const char* content, std::size_t size) const
{
    struct stat status, own, around;
    btkReplacement journal;
    const std::string head = headFor(oldContent.size(), size);
    return fstat(file, &own) == 0 && fstat(folder, &around) == 0 && journal.Create(folder) &&
           takeRights(file, own, journal.Get()) && fstat(journal.Get(), &status) == 0 &&
           isBelieved(around, own, status) && journal.Write(head.data(), head.size()) &&
           journal.Write(oldContent.data(), oldContent.size()) && journal.Write(content, size) &&
           journal.TakePlace(name.c_str(), btkReplacement::Synced, btkReplacement::Kept);
}

bool updateJournal::Remove() const
{
    if (unlinkat(folder, name.c_str(), 0) == 0 || errno == ENOENT)
        return true;
    // Users who may write the file may at least truncate this one.
    const btkFd journal(openat(folder, name.c_str(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    return journal && ftruncate(journal.Get(), 0) == 0;
}
