// backup TREE RECORD PATTERN [LEFT-OUT...]: copies a directory tree into a temporary directory, one top entry
// after the other (except those that match LEFT-OUT), reports its progress, verifies the copy, lists the
// nodes in it that match PATTERN, records the run in the configuration file RECORD, and removes the copy
// again.

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <qel/filelib.h>
#include <qel/hmxconfigfile.h>
#include <qel/syslib.h>
#include <qel/tmtime.h>

namespace {

using Names = std::vector<std::string>;

using Time = std::unique_ptr<tmTime, qelDelete>;

Names sorted(const xrchandle<xstringsequence>& found)
{
    Names names;
    for (int i = 0; i < found->getarraysize(); ++i) {
        const xstring name = found->get(i);
        names.emplace_back(name.CastToCString());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string joined(const std::string& directory, const std::string& name)
{
    return fsCatPaths(directory.c_str(), name.c_str()).CastToCString();
}

double modified(fsNodeInfo& node)
{
    return Time(node.getModTime())->getAbsTime();
}

// An empty directory with a new name, removed with its contents at the end.
class TemporaryDirectory
{
public:
    TemporaryDirectory()
    {
        const xstring place = sysGetEnv("TMPDIR");
        path = fsMkTmpDir(place == nullptr ? "/tmp" : place.CastToCString(), "bak").CastToCString();
    }
    ~TemporaryDirectory()
    {
        try {
            if (fshExists(path.c_str()))
                Remove();
        } catch (xthrowable* failure) {
            xrcrelease(failure);
        }
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    void Remove() { fsRemove(path.c_str(), fsRecursive); }

    std::string path;
};

struct Totals
{
    int files = 0, directories = 0, links = 0;
    double bytes = 0;
};

// Compares each node with its copy, down to the bytes of the files.
class Verification
{
public:
    void Compare(const std::string& original, const std::string& copy)
    {
        // Queries of a link describe its target: links are compared as texts.
        if (const std::filesystem::path link = hostPath(original); std::filesystem::is_symlink(link)) {
            require(std::filesystem::read_symlink(link) == std::filesystem::read_symlink(hostPath(copy)),
                    copy);
            ++totals.links;
            return;
        }
        const xrchandle<fsNodeInfo> first = fsGetNodeInfo(original.c_str());
        const xrchandle<fsNodeInfo> second = fsGetNodeInfo(copy.c_str());
        require(first->getType() == second->getType(), copy);
        if (first->getType() == fsDirectory) {
            ++totals.directories;
            const Names names = sorted(fsListDirectory(original.c_str(), "*"));
            require(names == sorted(fsListDirectory(copy.c_str(), "*")), copy);
            for (const std::string& name : names)
                Compare(joined(original, name), joined(copy, name));
            return;
        }
        require(first->getSize() == second->getSize() && modified(*first) == modified(*second), copy);
        require(fsCalculateCheckSum(original.c_str()) == fsCalculateCheckSum(copy.c_str()), copy);
        ++totals.files;
        totals.bytes += first->getSize();
    }

    Totals totals;

private:
    static std::filesystem::path hostPath(std::string native)
    {
        std::replace(native.begin(), native.end(), '\\', '/');
        return native;
    }

    static void require(bool same, const std::string& copy)
    {
        if (!same)
            throw std::runtime_error(copy + " is not as its original");
    }
};

Totals copyTree(const std::string& tree, const std::string& copy, const Names& leftOut)
{
    Names entries = sorted(fsListDirectory(tree.c_str(), "*"));
    std::erase_if(entries, [&](const std::string& name) {
        return std::any_of(leftOut.begin(), leftOut.end(), [&](const std::string& pattern) {
            return fsMatchesPattern(name.c_str(), pattern.c_str());
        });
    });
    Verification verification;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const std::string from = joined(tree, entries[i]), to = joined(copy, entries[i]);
        fsCopy(from.c_str(), to.c_str(), fsMerge, fsNewLink, fsSimple);
        verification.Compare(from, to);
        std::cout << 100 * (i + 1) / entries.size() << " %: " << entries[i] << std::endl;
    }
    return verification.totals;
}

void show(const std::string& copy, const std::string& pattern)
{
    const Names paths = sorted(fsExpandPattern(joined(copy, pattern).c_str()));
    std::cout << paths.size() << " like " << pattern << ":\n";
    for (const std::string& path : paths) {
        const double size = fshGetSize(path.c_str());
        std::cout << "  " << path.substr(copy.size() + 1) << ", " << static_cast<long long>(size)
                  << " bytes\n";
    }
}

// Adds this run to the file; concurrent runs wait for the file's lock.
bool keepRecord(const char* file, const std::string& tree, const std::string& result)
{
    hmxConfigFile record;
    if (!record.Open(file, hmxConfigFile::ReadWrite))
        return false;
    const xstring before = record.GetValue("runs");
    const int runs = before == nullptr ? 0 : std::atoi(before.CastToCString());
    const Time now(tmTime::CurrentTime());
    record.SetValue("runs", std::to_string(runs + 1).c_str());
    record.SetValue("latest.tree", tree.c_str());
    record.SetValue("latest.time", tmTime::TimeToString(now.get(), "%Y-%m-%d %H:%M:%S").CastToCString());
    record.SetValue("latest.result", result.c_str());
    return true;
}

// The library's text of a failure, which is released.
std::string textOf(xthrowable* thrown)
{
    std::ostringstream text;
    if (fsXException* const failure = fsXException::softcast(thrown))
        failure->Print(text);
    else
        text << thrown->getQelTypeName();
    xrcrelease(thrown);
    std::string line = text.str();
    if (line.ends_with('\n'))
        line.pop_back();
    std::replace(line.begin(), line.end(), '\n', ' ');
    return line;
}

std::string backup(const std::string& tree, const std::string& pattern, const Names& leftOut)
{
    TemporaryDirectory copy;
    const Totals totals = copyTree(tree, copy.path, leftOut);
    const std::string result =
        std::to_string(totals.files) + " files, " + std::to_string(totals.directories) + " directories, " +
        std::to_string(totals.links) + " links, " + std::to_string(static_cast<long long>(totals.bytes)) +
        " bytes copied and verified";
    std::cout << result << '\n';
    show(copy.path, pattern);
    copy.Remove();
    std::cout << (fshExists(copy.path.c_str()) ? "the copy is still there\n" : "the copy is removed\n");
    return result;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4) {
        std::cerr << "usage: backup TREE RECORD PATTERN [LEFT-OUT...]\n";
        return 2;
    }
    std::string result;
    bool isDone = false;
    try {
        result = backup(argv[1], argv[3], Names(argv + 4, argv + argc));
        isDone = true;
    } catch (xthrowable* thrown) {
        result = textOf(thrown);
    } catch (const std::exception& thrown) {
        result = thrown.what();
    }
    if (!isDone)
        std::cerr << "backup: " << result << '\n';
    const bool isKept = keepRecord(argv[2], argv[1], result);
    if (!isKept)
        std::cerr << "backup: " << argv[2] << " cannot be written\n";
    return isDone && isKept ? 0 : 1;
}
