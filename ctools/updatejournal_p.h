#pragma once

#include <cstddef>
#include <string>

#include <qel/base/btkfd.h>

/// The journal of a file that is being overwritten in place: its old and new content, stored beside it. An
/// existing journal is complete. It is valid while the file is a mixture of the two; a write by another
/// program makes it outdated. Operations that return bool return true on success; otherwise the reason is in
/// errno.
class updateJournal
{
public:
    /// The journal of the open `file`, which has a name in the open `folder`. The caller owns both and keeps
    /// them open.
    updateJournal(btkHandle folder, btkHandle file);

    enum Standing {
        absent,   // or not trusted
        outdated, // the file now has other content
        current
    };
    /// Finds the journal and its new content. False when that cannot be determined.
    bool Find(Standing& standing, std::string& content) const;
    /// Stores both contents on the disk. False when that fails; there is no journal then.
    bool Write(const std::string& oldContent, const char* content, std::size_t size) const;
    /// Removes the journal. A missing one counts as success.
    bool Remove() const;

private:
    btkHandle folder;
    btkHandle file;
    std::string name; // empty: the file has no number
};

/// Reads the whole open file.
bool readWhole(btkHandle file, std::string& content);
