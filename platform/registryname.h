#pragma once

/// The mapping from names of registry keys and values to names of files. Lower-case letters, digits, "_" and
/// "-" stand for themselves, capital letters become lower case, every other byte becomes "%" and two
/// hexadecimal digits: the result never contains a separator or "..". A name that exceeds the length of a
/// file name continues in a directory whose name ends in "+". A value's file name ends in ".value".

#include <optional>
#include <string>
#include <string_view>

/// The directory of the key `path`, relative to its parent key's. Nothing when the path is empty, begins with
/// a separator or doubles one.
std::optional<std::string> platKeyPath(std::string_view path);

/// The file of the value `name`, relative to its key's directory.
std::string platValuePath(std::string_view name);

/// Whether a directory of the store holds a part of a long name and is not a key.
bool platIsNamePart(std::string_view fileName);

/// `name` with control bytes and "%" as "%" and two digits, for the first line of a file.
std::string platWrittenName(std::string_view name);

/// The name that such a first line holds.
std::string platNameAsWritten(std::string_view text);

/// The name, without its capital letters, whose key has the directory `path`, or whose value has the file
/// `path` and ".value". Nothing when there is no such name.
std::optional<std::string> platNameOfFile(std::string_view path);
