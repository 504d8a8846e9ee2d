#include "board.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <utility>

#include <qel/base/btkruntime.h>
#include <qel/syslib.h>

#include "screen.h"

namespace {

constexpr std::size_t mostFiles = 500;
constexpr std::size_t mostValues = 5000;      // of all files
constexpr std::size_t mostPastOfAll = 200000; // numbers of all curves in one event
constexpr std::size_t longestText = 1000;     // bytes
constexpr double goneLimit = 60;              // how long a server that has ended is shown, in seconds
constexpr double replacedLimit = 10;          // how long it is shown that a file was replaced

// The value, not too long; numbers that JSON lacks become texts.
Json shownAs(const Json& value)
{
    if (value.is_number_float() && !std::isfinite(value.get<double>())) {
        const double number = value.get<double>();
        return std::isnan(number) ? "nan" : number > 0 ? "inf" : "-inf";
    }
    if (!value.is_string() || value.get_ref<const std::string&>().size() <= longestText)
        return value;
    std::string text = value.get<std::string>();
    std::size_t end = longestText;
    while (end > 0 && (text[end] & 0xC0) == 0x80) // within a character
        --end;
    text.resize(end);
    return text + "…";
}

} // namespace

Board::Board(std::vector<std::string> given, double sampleInterval, double oldest)
    : paths(std::move(given)), interval(sampleInterval), oldAge(oldest)
{
}

void Board::TakeSample()
{
    std::vector<std::string> found = paths;
    if (paths.empty())
        for (const Published& publisher : FindPublishers(PublisherFolders()))
            found.push_back(publisher.path);
    for (const std::string& path : found)
        if (watched.size() < mostFiles)
            watched.try_emplace(path, path, oldAge);
    std::map<std::string, Sample> samples;
    for (auto& [path, file] : watched)
        samples[path] = file.Take();

    const std::lock_guard lock(mutex);
    const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
    time = now.count();
    valueCount = hidden = 0;
    for (const auto& [path, sample] : samples) {
        File& file = files[path];
        if (file.id == 0) {
            file.id = ++lastId;
            file.publisher = PublisherOf(path);
        }
        Show(file, sample);
    }
    dropped.clear();
    // Servers only; one that never could be read is another user's.
    std::erase_if(files, [&](const auto& one) {
        if (!paths.empty() || time - one.second.lastLive < goneLimit)
            return false;
        dropped.push_back(one.second.id);
        watched.erase(one.first);
        return true;
    });
    ++number;
    changes = Event(false);
    whole = nullptr;
}

void Board::Show(File& file, const Sample& sample)
{
    std::string state = sample.problem;
    if (state == "replaced")
        file.replacedAt = sample.time;
    else if (sample.isLive && sample.time - file.replacedAt < replacedLimit)
        state = "replaced";
    else if (sample.isLive && !file.publisher.name.empty())
        state = btkIsHeld(file.publisher.path.c_str()) ? "live" : "dead";
    else if (state.empty())
        state = "live";
    file.isNews = state != file.state || sample.title != file.title || sample.isLive != file.isLive;
    file.hasOtherNames = false;
    ShowValues(file, sample);
    file.state = std::move(state);
    file.title = sample.title;
    file.isLive = sample.isLive;
    file.time = sample.time;
    if (sample.isLive)
        file.lastLive = sample.time;
}

void Board::ShowValues(File& file, const Sample& sample)
{
    const bool isContinued =
        sample.isLive && file.isLive && sample.problem != "replaced" && sample.time > file.time;
    std::map<std::string, Value> before = std::exchange(file.values, {});
    for (const auto& [name, current] : sample.values.items()) {
        if (valueCount >= mostValues) {
            ++hidden;
            continue;
        }
        ++valueCount;
        auto known = before.extract(name);
        const bool isNew = known.empty();
        Value& value = isNew ? file.values[name] : file.values.insert(std::move(known)).position->second;
        file.hasOtherNames |= isNew;
        const Json shown = shownAs(current);
        std::optional<double> rate;
        if (isContinued && !isNew && shown.is_number() && value.shown.is_number())
            rate = (shown.get<double>() - value.shown.get<double>()) / (sample.time - file.time);
        value.isNews = isNew || shown != value.shown || rate != value.rate;
        if (isNew || shown != value.shown) {
            value.shown = shown;
            value.since = sample.time;
            value.hasChanged = !isNew;
        }
        value.rate = rate;
        if (sample.isLive && shown.is_number())
            remember(value.past, shown.get<double>());
    }
    file.hasOtherNames |= !before.empty();
}

Json Board::EventOf(const File& file, bool isWhole, std::size_t pastShown) const
{
    const Published& publisher = file.publisher;
    Json event = {
        {"id", file.id},          {"name", publisher.name.empty() ? publisher.path : publisher.name},
        {"path", publisher.path}, {"process", publisher.name.empty() ? Json() : Json(publisher.process)},
        {"title", file.title},    {"state", file.state},
        {"isLive", file.isLive},  {"isWhole", isWhole || file.hasOtherNames},
        {"values", Json::array()}};
    for (const auto& [name, value] : file.values) {
        if (!isWhole && !value.isNews && !file.hasOtherNames)
            continue;
        Json one = {{"name", name},
                    {"value", value.shown},
                    {"rate", value.rate ? Json(*value.rate) : Json()},
                    {"since", value.since},
                    {"hasChanged", value.hasChanged}};
        if (isWhole)
            one["past"] = std::vector<double>(
                value.past.end() - static_cast<std::ptrdiff_t>(std::min(value.past.size(), pastShown)),
                value.past.end());
        event["values"].push_back(std::move(one));
    }
    return event;
}

std::shared_ptr<const std::string> Board::Event(bool isWhole) const
{
    Json event = {{"isWhole", isWhole}, {"time", time},       {"interval", interval},
                  {"hidden", hidden},   {"dropped", dropped}, {"files", Json::array()}};
    if (isWhole)
        event["machine"] = sysGetCurHostName().CastToCString();
    for (const auto& [path, file] : files) {
        Json one = EventOf(file, isWhole, mostPastOfAll / std::max<std::size_t>(valueCount, 1));
        if (isWhole || file.isNews || !one["values"].empty())
            event["files"].push_back(std::move(one));
    }
    return std::make_shared<const std::string>(
        "data: " + event.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n\n");
}

std::shared_ptr<const std::string> Board::Next(std::uint64_t& seen)
{
    const std::lock_guard lock(mutex);
    if (seen == number)
        return nullptr;
    const bool isNext = seen != 0 && seen + 1 == number;
    seen = number;
    if (isNext)
        return changes;
    if (whole == nullptr)
        whole = Event(true);
    return whole;
}
