#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "httpserver.h"
#include "publishers.h"
#include "watchedfile.h"

/// The values of monitor files over time, as events for the page of `qel mon serve`. The files are read once for all
/// viewers: one thread takes the samples, the server's thread passes them on.
class Board : public HttpStream
{
public:
    /// The files at the paths; without paths: those of this machine's servers at each time. Both times in seconds.
    Board(std::vector<std::string> given, double sampleInterval, double oldest);

    /// Reads the files.
    void TakeSample();
    /// An event with what the latest sample changed; for a viewer who has missed one, with all there is.
    std::shared_ptr<const std::string> Next(std::uint64_t& seen) override;

private:
    struct Value
    {
        Json shown = {};
        double since = 0;        // of its last change
        bool hasChanged = false; // else it is older than the first sample
        std::optional<double> rate = {};
        std::deque<double> past = {};
        bool isNews = true; // of the latest sample
    };
    struct File
    {
        int id = 0;
        Published publisher = {};
        std::string title = {};
        std::string state = {};
        bool isLive = false;
        double time = 0; // of the latest sample
        double lastLive = 0;
        double replacedAt = 0;
        std::map<std::string, Value> values = {};
        // of the latest sample:
        bool isNews = true;
        bool hasOtherNames = true;
    };

    void Show(File& file, const Sample& sample);
    void ShowValues(File& file, const Sample& sample);
    Json EventOf(const File& file, bool isWhole, std::size_t pastShown) const;
    std::shared_ptr<const std::string> Event(bool isWhole) const;

    const std::vector<std::string> paths;
    const double interval;
    const double oldAge;
    std::map<std::string, WatchedFile> watched; // by path; of the sampling thread

    std::mutex mutex; // of all below
    std::map<std::string, File> files;
    int lastId = 0;
    std::vector<int> dropped; // by the latest sample
    std::size_t valueCount = 0;
    std::size_t hidden = 0; // values that are too many to be shown
    double time = 0;        // of the latest sample, since 1970
    std::uint64_t number = 0;
    std::shared_ptr<const std::string> changes;
    std::shared_ptr<const std::string> whole; // null until a viewer needs it
};
