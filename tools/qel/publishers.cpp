#include "publishers.h"

#include <algorithm>
#include <cmath>
#include <filesystem>

#include <qel/base/btkruntime.h>

#include "files.h"
#include "monitor.h"

namespace {

constexpr double largestWhole = 9007199254740992; // 2^53

// NAME-PROCESS-START.mon; false: another file.
bool parseName(const std::filesystem::path& path, Published& file)
{
    const std::string stem = path.stem().string();
    const std::size_t last = stem.rfind('-');
    const std::size_t first =
        last == std::string::npos || last == 0 ? std::string::npos : stem.rfind('-', last - 1);
    if (path.extension() != ".mon" || first == std::string::npos || first == 0)
        return false;
    const std::string process = stem.substr(first + 1, last - first - 1);
    if (process.empty() || process.size() > 10 ||
        process.find_first_not_of("0123456789") != std::string::npos)
        return false;
    file.name = Printable(stem.substr(0, first));
    file.process = std::stoll(process);
    return true;
}

// Counts are published as reals.
Json wholeOf(const Json& value)
{
    if (!value.is_number_float())
        return value;
    const double number = value.get<double>();
    return std::trunc(number) == number && std::abs(number) < largestWhole
               ? Json(static_cast<long long>(number))
               : value;
}

} // namespace

std::vector<std::string> PublisherFolders()
{
    std::vector<std::string> folders = {"/run/qel-ns", "/run/qel-rshd"};
    if (const std::string own = btkRuntimeFolder();
        !own.empty() && std::find(folders.begin(), folders.end(), own) == folders.end())
        folders.push_back(own);
    return folders;
}

std::vector<Published> FindPublishers(const std::vector<std::string>& folders)
{
    std::vector<Published> files;
    for (const std::string& folder : folders) {
        std::error_code failed;
        for (std::filesystem::directory_iterator at(folder, failed), end; !failed && at != end;
             at.increment(failed)) {
            Published file;
            file.path = at->path().string();
            if (parseName(at->path(), file))
                files.push_back(std::move(file));
        }
    }
    std::sort(files.begin(), files.end(),
              [](const Published& one, const Published& other) { return one.path < other.path; });
    return files;
}

std::vector<Published> ReadPublishers(const std::vector<std::string>& folders)
{
    std::vector<Published> files = FindPublishers(folders);
    for (Published& file : files)
        file = ReadPublished(file.path);
    // Those without permission are another user's.
    std::erase_if(files, [](const Published& file) { return file.values.is_null(); });
    return files;
}

Published PublisherOf(const std::string& path)
{
    Published file;
    file.path = path;
    parseName(path, file);
    return file;
}

Published ReadPublished(const std::string& path)
{
    Published file = PublisherOf(path);
    try {
        const Monitor monitor(monFile::Open(PathOf(path).c_str()));
        if (monitor == nullptr)
            return file;
        Json values = Json::object();
        for (monParam* const parameter : ParametersOf(*monitor))
            values[parameter->getName().CastToCString()] = wholeOf(ValueOf(*parameter));
        file.title = Printable(monitor->getTitle().CastToCString());
        file.isAlive = !file.name.empty() && btkIsHeld(path.c_str());
        file.values = std::move(values);
    } catch (xthrowable* thrown) { // it was removed meanwhile, or is damaged
        static_cast<void>(FailureOf(thrown));
    } catch (const CommandFailed&) { // on no drive
    }
    return file;
}
