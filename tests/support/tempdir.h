#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdlib.h>
#include <string>
#include <system_error>
#include <utility>

/// A host path, as a text and as the calls of the host take it.
struct TestPath : std::string
{
    explicit TestPath(std::string text) : std::string(std::move(text)) {}
    operator const char*() const { return c_str(); }
};

/// A new directory that is removed with everything in it.
class TempDir
{
public:
    /// InMemory: where nothing waits for a disk, if this host has such a place.
    enum Where { OnDisk, InMemory };

    explicit TempDir(Where where = OnDisk)
    {
        const char* const memory = "/dev/shm";
        const std::filesystem::path parent = where == InMemory && std::filesystem::is_directory(memory)
                                                 ? memory
                                                 : std::filesystem::temp_directory_path();
        std::string name = (parent / "qeltest.XXXXXX").string();
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
    TestPath path() const { return TestPath(root); }
    TestPath path(const std::string& name) const { return TestPath(root + "/" + name); }

    /// Makes a directory and those on the way to it.
    void makeDir(const std::string& name) const { std::filesystem::create_directories(root + "/" + name); }
    void link(const std::string& target, const std::string& name) const
    {
        std::filesystem::create_symlink(target, root + "/" + name);
    }
    /// Whether there is a node of that name, a link that leads nowhere included.
    bool has(const std::string& name) const
    {
        return std::filesystem::symlink_status(root + "/" + name).type() !=
               std::filesystem::file_type::not_found;
    }

    /// Makes the file `name` hold exactly `content`, and the directories on the way to it.
    void write(const std::string& name, const std::string& content = "") const
    {
        makeDir(std::filesystem::path(name).parent_path().string());
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
