#pragma once

#include <cstddef>
#include <string>

#include <qel/base/btkfd.h>

/// The old and the new content of a file that is being overwritten in place, kept beside it. It is whole when
/// it is there. It counts while the file is a mixture of the two: once others have written something else, it
/// is of no use. Operations that return bool give true for success, else the reason is in errno.
class updateJournal
{
public:
    /// Of the open `file`, for a name of it in the open `folder`. Both stay the caller's and open.
    updateJournal(btkHandle folder, btkHandle file);

    enum Standing {
        absent,   // or of somebody else
        outdated, // it does not count
        current
    };
    /// Whether there is one, and the new content. False when that cannot be told.
    bool Find(Standing& standing, std::string& content) const;
    /// Keeps both contents on the disk. False where that is not possible; nothing is there then.
    bool Write(const std::string& oldContent, const char* content, std::size_t size) const;
    /// Removes what is there. Success when there is nothing.
    bool Remove() const;

private:
    btkHandle folder;
    btkHandle file;
    std::string name; // empty: the file has no number
};

/// Reads the whole open file.
bool readWhole(btkHandle file, std::string& content);
