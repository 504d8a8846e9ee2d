// qel fs: files and directories.
#include <algorithm>
#include <array>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <openssl/evp.h>
#include <string>
#include <utility>
#include <vector>

#include <qel/base/btkfd.h>
#include <qel/filelib.h>
#include <qel/pcinterrupt.h>
#include <qel/platform/errornumbers.h>
#include <qel/qelown.h>
#include <qel/tmtime.h>

#include "commands.h"
#include "files.h"
#include "progress.h"

namespace {

constexpr int manyPaths = 1 << 20;

bool isSeparator(char c)
{
    return c == '/' || c == '\\';
}

std::string withoutEndSeparators(std::string path)
{
    while (path.size() > 1 && isSeparator(path.back()))
        path.pop_back();
    return path;
}

/// The last entry of a path of the library; empty for a root and for a drive.
std::string lastEntry(const std::string& path)
{
    const std::string whole = withoutEndSeparators(path);
    const std::size_t end = whole.find_last_of("/\\:");
    return end == std::string::npos ? whole : whole.substr(end + 1);
}

bool hasOwnName(const std::string& path)
{
    const std::string entry = lastEntry(path);
    return !entry.empty() && entry != "." && entry != "..";
}

std::string joined(const std::string& directory, const std::string& name)
{
    return isSeparator(directory.back()) ? directory + name : directory + '/' + name;
}

/// Runs a command of this group; exceptions of the file library become its failure.
template<class Work>
void tried(Work work)
{
    try {
        work();
    } catch (xthrowable* caught) {
        throw FileFailureOf(caught);
    }
}

/// Shows the progress of work, and ends it when the user interrupts the program, so that no partial file is
/// left.
class Watch : public fsProgressHandler
{
public:
    bool Invoke(const char* path, double done, double total) override
    {
        ++calls;
        if (total > 0)
            line.Show(ShownAs(path), done, total);
        else // removed nodes, and empty files
            line.ShowCount(ShownAs(path), calls);
        return interrupt == nullptr || interrupt->getIsSignaled() == 0;
    }

private:
    ProgressLine line;
    double calls = 0;
    qel::owned<pcInterruptEvent> interrupt{pcInterruptEvent::Create()};
};

/// Collects failures, and continues if requested.
class LeftOut : public fsFailureHandler
{
public:
    /// `name` is that of the command. `ignores`: a missing node is not a failure.
    LeftOut(const char* name, bool keepGoing, bool ignores = false)
        : command(name), goesOn(keepGoing), ignoresAbsent(ignores)
    {
    }

    fsFailureAction OnFailure(const char* path, fsXException* failure) override
    {
        if (ignoresAbsent && fsXDoesNotExist::softcast(failure) != nullptr)
            return fsSkip;
        if (!goesOn)
            return fsStop;
        xrcattach(failure); // balances the release in the next call
        all.push_back(FileFailureOf(failure));
        all.back().what = ShownAs(path);
        return fsSkip;
    }

    /// Ends the command with a failure when nodes were skipped.
    void Tell() const
    {
        for (const CommandFailed& failed : all)
            std::cerr << "qel fs " << command << ": " << Printable(failed.what) << ": "
                      << Printable(failed.why) << '\n';
        if (!all.empty())
            Fail(Exit::peer, {}, std::to_string(all.size()) + " left out");
    }

private:
    const char* command;
    bool goesOn, ignoresAbsent;
    std::vector<CommandFailed> all;
};

struct TreeChoices
{
    bool recursive = false;
    bool keepGoing = false;
    bool oneFileSystem = false;

    fsMountMode Mounts() const { return oneFileSystem ? fsOneFileSystem : fsCrossMounts; }
};

// ---- ls

struct ListChoices
{
    std::string path = ".";
    std::string pattern = "*";
    bool isLong = false;
};

std::string timeText(tmTime* time)
{
    const qel::owned<tmTime> owned(time);
    return tmTime::TimeToString(time, "%Y-%m-%dT%H:%M:%S%z").CastToCString();
}

/// The status of the node at `path`, under its printed name.
Json nodeOf(const std::string& path, const std::string& name)
{
    fsNodeInfo info;
    if (info.Initialize(path.c_str()) == 0) // a dangling link, or deleted meanwhile
        return {{"name", name}, {"type", nullptr}, {"size", nullptr}, {"modified", nullptr}};
    const bool isDirectory = info.getType() == fsDirectory;
    return {{"name", name},
            {"type", isDirectory ? "directory" : "file"},
            {"size", isDirectory ? Json() : Json(static_cast<long long>(info.getSize()))},
            {"modified", timeText(info.getModTime())}};
}

std::string namesIn(const Json& nodes)
{
    std::string lines;
    for (const Json& node : nodes) {
        const std::string name = node["name"];
        lines.append(btkIsTerminal(1) ? Printable(name) : name).append(1, '\n');
    }
    return lines;
}

std::string rowsOf(const Json& nodes)
{
    constexpr std::size_t toSeconds = 19; // "2024-02-29T23:59:59"
    Json rows = Json::array();
    for (const Json& node : nodes) {
        std::string modified = node["modified"].is_null() ? "" : node["modified"].get<std::string>();
        modified = modified.substr(0, toSeconds);
        std::replace(modified.begin(), modified.end(), 'T', ' ');
        rows.push_back({{"type", node["type"].is_null() ? Json("lost") : node["type"]},
                        {"size", node["size"]},
                        {"modified", modified},
                        {"name", node["name"]}});
    }
    return AsText(rows);
}

void listFolder(const ListChoices& choices)
{
    Json nodes = Json::array();
    const std::string path = PathOf(choices.path);
    if (fshIsDirectory(path.c_str()) == 1) {
        const xrchandle<xstringsequence> names = fsListDirectory(path.c_str(), nullptr);
        std::map<std::string, std::string> sorted; // from the printed name to the library's
        for (int i = 0; i < names->getarraysize(); ++i) {
            const std::string name = names->get(i).CastToCString();
            if (const std::string shown = ShownAs(name);
                fsMatchesPattern(shown.c_str(), choices.pattern.c_str()))
                sorted[shown] = name;
        }
        for (const auto& [shown, name] : sorted)
            nodes.push_back(nodeOf(joined(path, name), shown));
    } else {
        fsGetNodeInfo(path.c_str()); // throws if there is a failure
        nodes.push_back(nodeOf(path, choices.path));
    }
    Show(nodes, choices.isLong ? &rowsOf : &namesIn);
}

// ---- cp

struct CopyChoices
{
    std::vector<std::string> paths; // the last one is the destination
    TreeChoices tree;
    bool parents = false;
    fsRecursiveCopyMode existing = fsMerge;
    fsSoftLinkCopyMode links = fsNewLink;
};

/// The path that a copy of `from` gets: `to`, or in it when it is a directory.
std::string targetOf(const std::string& from, const std::string& to, bool isOnlyOne)
{
    if (fshIsDirectory(to.c_str()) == 0) {
        if (!isOnlyOne)
            Fail(Exit::no, ShownAs(to), "is not a directory");
        return to;
    }
    if (!hasOwnName(from))
        Fail(Exit::usage, ShownAs(from), "has no name to copy it under; give the new path");
    return joined(to, lastEntry(from));
}

bool isReadable(const std::string& path)
{
    fsiFile file;
    fsiDir directory;
    return fshIsDirectory(path.c_str()) == 1 ? directory.Open(path.c_str())
                                             : file.Open(path.c_str(), fsReadOnly);
}

/// The failure of a copy, for which the library names the source, with the path that is at fault.
CommandFailed copyFailureOf(xthrowable* refused, const std::string& from, const std::string& to)
{
    constexpr unsigned ofDestination[] = {ERROR_DISK_FULL, ERROR_NOT_ENOUGH_QUOTA, ERROR_FILE_TOO_LARGE,
                                          ERROR_WRITE_PROTECT};

    const fsXException* const known = fsXException::softcast(refused);
    const unsigned error = known == nullptr ? 0 : known->getPlatformError();
    const bool isFull =
        std::find(std::begin(ofDestination), std::end(ofDestination), error) != std::end(ofDestination);
    const bool isPath = fsXInvalidPath::softcast(refused) != nullptr;
    const bool isAbsent = fsXDoesNotExist::softcast(refused) != nullptr;
    const bool isDenied = fsXNoPermission::softcast(refused) != nullptr;
    CommandFailed failed = FileFailureOf(refused);
    const std::string source = ShownAs(from);
    const bool isSource = failed.what == source;
    if (isPath && isSource && fshExists(from.c_str()) == 0) {
        failed.why = "not found";
    } else if (isAbsent && isSource && fshExists(from.c_str()) == 1) {
        failed.what = ShownAs(fsGetHeadPath(to.c_str()).CastToCString());
        failed.why = "no such directory; --parents creates it";
    } else if (isFull && failed.what.starts_with(source)) {
        failed.what.replace(0, source.size(), ShownAs(to));
    } else if (isDenied && isSource && isReadable(from)) {
        failed.what = ShownAs(to);
    }
    return failed;
}

void copyTree(const CopyChoices& choices)
{
    std::vector<std::string> sources;
    for (const std::string& typed : choices.paths)
        sources.push_back(PathOf(typed));
    const std::string destination = sources.back();
    sources.pop_back();
    LeftOut leftOut("cp", choices.tree.keepGoing);
    for (const std::string& from : sources) {
        if (!choices.tree.recursive && fshIsDirectory(from.c_str()) == 1)
            Fail(Exit::no, ShownAs(from), "is a directory; --recursive copies it");
        const std::string to = targetOf(from, destination, sources.size() == 1);
        Watch watch;
        try {
            fsCopy(from.c_str(), to.c_str(), choices.existing, choices.links,
                   choices.parents ? fsRecursive : fsSimple, leftOut, &watch, choices.tree.Mounts());
        } catch (xthrowable* refused) {
            throw copyFailureOf(refused, from, to);
        }
    }
    leftOut.Tell();
}

// ---- rm

struct RemoveChoices
{
    std::vector<std::string> paths;
    TreeChoices tree;
    bool force = false;
};

void removeTree(const RemoveChoices& choices)
{
    std::vector<std::string> paths;
    for (const std::string& typed : choices.paths) {
        paths.push_back(PathOf(typed));
        if (!hasOwnName(paths.back()))
            Fail(Exit::usage, typed, "roots, \".\" and \"..\" are not removed");
    }
    LeftOut leftOut("rm", choices.tree.keepGoing, choices.force);
    for (const std::string& path : paths)
        try {
            Watch watch;
            fsRemove(path.c_str(), choices.tree.recursive ? fsRecursive : fsSimple, leftOut, &watch,
                     choices.tree.Mounts());
        } catch (xthrowable* caught) {
            const bool isFull = fsXFileExists::softcast(caught) != nullptr;
            CommandFailed failed = FileFailureOf(caught);
            if (isFull && !choices.tree.recursive)
                failed.why = "directory not empty; --recursive removes it";
            throw failed;
        }
    leftOut.Tell();
}

// ---- sum

struct SumChoices
{
    std::vector<std::string> paths = {"-"};
    bool simple = false;
};

/// The SHA-256 of bytes.
class Sha256
{
public:
    Sha256()
    {
        if (context == nullptr || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1)
            Fail(Exit::peer, "SHA-256", "cannot be computed here");
    }

    void Add(const char* bytes, std::size_t size) { EVP_DigestUpdate(context.get(), bytes, size); }

    std::string Hex()
    {
        std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
        unsigned size = 0;
        EVP_DigestFinal_ex(context.get(), digest.data(), &size);
        std::string text;
        for (unsigned i = 0; i < size; ++i) {
            constexpr const char* digits = "0123456789abcdef";
            text += {digits[digest[i] >> 4], digits[digest[i] & 0xF]};
        }
        return text;
    }

private:
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context{EVP_MD_CTX_new(), &EVP_MD_CTX_free};
};

constexpr std::size_t blockSize = 256 * 1024;

std::string sumOfInput()
{
    Sha256 sum;
    std::vector<char> block(blockSize);
    while (std::cin.read(block.data(), static_cast<std::streamsize>(block.size())) || std::cin.gcount() > 0)
        sum.Add(block.data(), static_cast<std::size_t>(std::cin.gcount()));
    if (std::cin.bad())
        Fail(Exit::peer, "standard input", "cannot be read");
    return sum.Hex();
}

std::string sumOfFile(const std::string& typed)
{
    const std::string path = PathOf(typed);
    if (fshIsDirectory(path.c_str()) == 1)
        Fail(Exit::no, typed, "is a directory");
    const xrchandle<fsNodeInfo> info = fsGetNodeInfo(path.c_str());
    fsiFile file;
    if (!file.Open(path.c_str(), fsReadOnly))
        FailForLastError(typed);
    Sha256 sum;
    ProgressLine line;
    std::vector<char> block(blockSize);
    double done = 0;
    unsigned long size = 0;
    fsIOStatus status;
    while ((status = file.Read(block.data(), block.size(), &size)) == fsIOOk) {
        sum.Add(block.data(), size);
        done += static_cast<double>(size);
        line.Show(typed, done, info->getSize());
    }
    if (status == fsIOFailed)
        FailForLastError(typed);
    return sum.Hex();
}

std::string simpleSumOf(const std::string& typed)
{
    std::array<char, 9> text{};
    std::snprintf(text.data(), text.size(), "%08x",
                  static_cast<unsigned>(fsCalculateCheckSum(PathOf(typed).c_str())));
    return text.data();
}

/// A line as the usual programs for checksums read it: a name with a line end in it is escaped, marked by a
/// backslash at the beginning.
std::string sumLines(const Json& sums)
{
    static const std::map<char, const char*> escapes = {{'\n', "\\n"}, {'\r', "\\r"}, {'\\', "\\\\"}};
    std::string lines;
    for (const Json& sum : sums) {
        const std::string name = sum["file"];
        const bool isEscaped = name.find_first_of("\n\r\\") != std::string::npos;
        lines.append(isEscaped ? "\\" : "").append(sum["sum"]).append("  ");
        for (const char c : btkIsTerminal(1) ? Printable(name) : name) {
            const auto escape = escapes.find(c);
            lines += escape == escapes.end() ? std::string(1, c) : escape->second;
        }
        lines += '\n';
    }
    return lines;
}

void printSums(const SumChoices& choices)
{
    Json sums = Json::array();
    CommandFailed first{Exit::yes, {}, {}};
    for (const std::string& path : choices.paths)
        try {
            tried([&] {
                if (path == "-" && choices.simple)
                    Fail(Exit::usage, path, "--simple needs files");
                sums.push_back({{"file", path},
                                {"sum", choices.simple ? simpleSumOf(path)
                                        : path == "-"  ? sumOfInput()
                                                       : sumOfFile(path)}});
            });
        } catch (const CommandFailed& failed) {
            if (first.status == Exit::yes)
                first = failed;
        }
    Show(sums, &sumLines);
    if (first.status != Exit::yes)
        throw first;
}

// ---- the group

void offerTree(CLI::App& command, TreeChoices& tree, const char* recursive)
{
    command.add_flag("-r,--recursive", tree.recursive, recursive);
    command.add_flag("--keep-going", tree.keepGoing,
                     "Continue after a failure; list the failures at the end, and exit with 3");
    command.add_flag("--one-file-system", tree.oneFileSystem,
                     "Skip file systems that are mounted in directories");
}

std::vector<std::string> files(const Typed&)
{
    return {":files"};
}

void addList(CLI::App& group)
{
    const auto choices = std::make_shared<ListChoices>();
    CLI::App& list = AddCommand(group, "ls", "Print the contents of a directory, in the order of the names",
                                [choices] { tried([&] { listFolder(*choices); }); });
    Offer(*list.add_option("path", choices->path, "The directory, or a file")
               ->type_name("PATH")
               ->capture_default_str(),
          &files);
    list.add_option("--like", choices->pattern, "Only names that match; * and ? are wildcards")
        ->type_name("PATTERN")
        ->capture_default_str();
    list.add_flag("-l,--long", choices->isLong, "Print type, size in bytes and time of the last change, too");
    OfferNative(list);
    OfferJson(
        list,
        "a line for each node: name, type (file or directory), size in bytes, modified; all but the name are null for "
        "a link to nothing");
}

void addCopy(CLI::App& group)
{
    const auto choices = std::make_shared<CopyChoices>();
    CLI::App& copy = AddCommand(group, "cp", "Copy files and directories, with rights, times and holes",
                                [choices] { tried([&] { copyTree(*choices); }); });
    Offer(*copy.add_option(
                   "path", choices->paths,
                   "Files and directories to copy; the last path is the new one, or a directory to copy into")
               ->type_name("PATH")
               ->required()
               ->expected(2, manyPaths),
          &files);
    offerTree(copy, choices->tree, "Copy directories too, with everything in them");
    copy.add_flag("-p,--parents", choices->parents, "Create missing parents of the new path");
    copy.add_option(
            "--existing", choices->existing,
            "How to treat a file or directory in the way: refuse to copy, merge (directories are merged, files "
            "replaced), or replace (remove it first)")
        ->type_name("WAY")
        ->transform(CLI::CheckedTransformer(std::map<std::string, fsRecursiveCopyMode>{
            {"refuse", fsForceNew}, {"merge", fsMerge}, {"replace", fsReplace}}))
        ->default_str("merge");
    copy.add_option("--links", choices->links,
                    "How to treat soft links: keep, follow (copy their targets), or skip")
        ->type_name("WAY")
        ->transform(CLI::CheckedTransformer(std::map<std::string, fsSoftLinkCopyMode>{
            {"keep", fsNewLink}, {"follow", fsExpand}, {"skip", fsIgnore}}))
        ->default_str("keep");
    OfferNative(copy);
    OfferProgress(copy);
    OfferQuiet(copy);
}

void addRemove(CLI::App& group)
{
    const auto choices = std::make_shared<RemoveChoices>();
    CLI::App& remove = AddCommand(group, "rm", "Remove files and empty directories; of a soft link, the link",
                                  [choices] { tried([&] { removeTree(*choices); }); });
    Offer(*remove.add_option("path", choices->paths, "Files and directories to remove")
               ->type_name("PATH")
               ->required(),
          &files);
    offerTree(remove, choices->tree, "Remove directories too, with everything in them");
    remove.add_flag("-f,--force", choices->force, "Ignore missing files");
    OfferNative(remove);
    OfferProgress(remove);
    OfferQuiet(remove);
}

void addSum(CLI::App& group)
{
    const auto choices = std::make_shared<SumChoices>();
    CLI::App& sum =
        AddCommand(group, "sum", "Print the SHA-256 checksums of files, as `sha256sum --check` reads them",
                   [choices] { printSums(*choices); });
    sum.add_option("file", choices->paths, "The files (default: -, the standard input)")->type_name("FILE");
    sum.add_flag("--simple", choices->simple, "The library's own checksum, of 32 bits, instead");
    OfferNative(sum);
    OfferProgress(sum);
    OfferJson(sum, "a line for each file: file, sum");
}

} // namespace

void AddFileCommands(CLI::App& program)
{
    CLI::App& group =
        AddGroup(program, "fs", "Files and directories: list, copy, remove, sum",
                 {{"qel fs ls --long --like '*.log' /var/log", "Logs, with their sizes and times."},
                  {"qel fs cp -r --links follow data /mnt/backup", "A copy that needs nothing else."},
                  {"qel fs rm -r old", "Remove a directory with everything in it."},
                  {"qel fs sum *.bin >SUMS", "Checksums that `sha256sum --check SUMS` compares."},
                  {"qel fs sum --json /etc/hosts", "A checksum for a program."}});
    addList(group);
    addCopy(group);
    addRemove(group);
    addSum(group);
}
