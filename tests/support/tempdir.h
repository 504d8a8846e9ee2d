#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdlib.h>
#include <string>
#include <system_error>

/// A new directory that is removed with everything in it.
class TempDir
{
public:
    TempDir()
    {
        std::string name = (std::filesystem::temp_directory_path() / "qeltest.XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr)
            throw std::system_error(errno, std::generic_category(), name);
        root = name;
    }
    ~TempDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(root, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    /// The host's path of the directory, or of `name` in it.
    const std::string& path() const { return root; }
    std::string path(const std::string& name) const { return root + "/" + name; }

    /// Makes the file `name` hold exactly `content`.
    void write(const std::string& name, const std::string& content) const
    {
        std::ofstream(path(name), std::ios::binary) << content;
    }
    /// What the file `name` holds.
    std::string read(const std::string& name) const
    {
        std::ostringstream content;
        content << std::ifstream(path(name), std::ios::binary).rdbuf();
        return content.str();
    }

private:
    std::string root;
};
