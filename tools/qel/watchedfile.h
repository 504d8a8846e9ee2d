#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "monitor.h"
#include "output.h"

// A monitor file over time, as `mon watch` and `mon serve` show it.

/// The values of a file at one moment.
struct Sample
{
    double time = 0; // seconds since 1970-01-01 00:00 UTC
    std::string title;
    std::string problem; // the reason why there are no values, or why they are unreliable
    bool isLive = false; // the values are from the current file
    Json values = Json::object();
};

/// The publisher may replace the file at any time, or not have created it yet: then it is opened again.
class WatchedFile
{
public:
    /// Live values are old when the file was not changed for `oldest` seconds.
    WatchedFile(std::string watched, double oldest) : path(std::move(watched)), oldAge(oldest) {}

    /// The values of these names; without names: all. Failures to read them are the sample's problem.
    Sample Take(const std::vector<std::string>& names = {});

private:
    void TakeFrom(Sample& sample, const std::vector<std::string>& names);

    const std::string path;
    const double oldAge;
    Monitor file;
    // The last live ones.
    std::string title;
    Json values = Json::object();
};
