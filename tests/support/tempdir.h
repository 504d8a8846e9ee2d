#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdlib.h>
#include <string>
#include <system_error>
#include <utility>

/// A path of the operating system, as a text and in the form that system calls take.
struct TestPath : std::string
{
    explicit TestPath(std::string text) : std::string(std::move(text)) {}
    operator const char*() const { return c_str(); }
};

/// A new directory that the destructor removes with its contents.
class TempDir
{
public:
    /// InMemory: on a file system in memory, if this machine has one.
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

    /// The system's path of the directory, or of `name` in it.
    TestPath path() const { return TestPath(root); }
    TestPath path(const std::string& name) const { return TestPath(root + "/" + name); }

    /// Creates a directory and its missing parents.
    void makeDir(const std::string& name) const { std::filesystem::create_directories(root + "/" + name); }
    void link(const std::string& target, const std::string& name) const
    {
        std::filesystem::create_symlink(target, root + "/" + name);
    }
    /// Whether there is a node of that name, including a dangling link.
    bool has(const std::string& name) const
    {
        return std::filesystem::symlink_status(root + "/" + name).type() !=
               std::filesystem::file_type::not_found;
    }

    /// Writes exactly `content` to the file `name`, and creates its missing parent directories.
    void write(const std::string& name, const std::string& content = "") const
    {
        makeDir(std::filesystem::path(name).parent_path().string());
        std::ofstream(path(name), std::ios::binary) << content;
    }
    /// The contents of the file `name`.
    std::string read(const std::string& name) const
    {
        std::ostringstream content;
        content << std::ifstream(path(name), std::ios::binary).rdbuf();
        return content.str();
    }

private:
    std::string root;
};
