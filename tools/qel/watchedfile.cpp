#include "watchedfile.h"

#include <algorithm>
#include <chrono>
#include <filesystem>

#include "files.h"

Sample WatchedFile::Take(const std::vector<std::string>& names)
{
    Sample sample;
    const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
    sample.time = now.count();
    try {
        TakeFrom(sample, names);
    } catch (xthrowable* thrown) {
        sample.problem = FailureOf(thrown).why;
        sample.values = Json::object();
        file.reset();
    } catch (const CommandFailed& failed) { // on no drive
        sample.problem = failed.why;
    }
    return sample;
}

void WatchedFile::TakeFrom(Sample& sample, const std::vector<std::string>& names)
{
    std::error_code failed;
    if (file != nullptr && file->isReplaced()) {
        const bool isGone = !std::filesystem::exists(path, failed);
        sample.problem = isGone ? "removed" : "replaced";
        if (isGone || !file->Reopen()) {
            sample.title = title;
            sample.values = values;
            return;
        }
    }
    if (file == nullptr)
        file.reset(monFile::Open(PathOf(path).c_str()));
    if (file == nullptr) {
        sample.problem =
            std::filesystem::exists(path, failed) ? "not permitted, or no monitor file" : "not there yet";
        return;
    }
    sample.title = Printable(file->getTitle().CastToCString());
    for (monParam* const parameter : ParametersOf(*file)) {
        const std::string name = parameter->getName().CastToCString();
        if (names.empty() || std::find(names.begin(), names.end(), name) != names.end())
            sample.values[name] = ValueOf(*parameter);
    }
    sample.isLive = true;
    title = sample.title;
    values = sample.values;
    const auto changed = std::filesystem::last_write_time(path, failed);
    const std::chrono::duration<double> age = std::filesystem::file_time_type::clock::now() - changed;
    if (!failed && sample.problem.empty() && age.count() > oldAge)
        sample.problem = "old";
}
