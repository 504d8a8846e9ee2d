#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "output.h"

// The monitor files of running programs, as `top`, `mon export` and `mon serve` read them.

/// A monitor file at one moment.
struct Published
{
    std::string path; // as the operating system has it
    std::string
        name; // of the program that publishes it; empty: the path does not have the form of such a file
    long long process = 0; // of that program
    bool isAlive = false;  // that program runs
    std::string title;
    Json values; // an object; whole numbers as such; null: the file could not be read
};

/// Where the servers of this machine publish their figures: the run-time folders of this user and of the services.
std::vector<std::string> PublisherFolders();
/// The readable files of all publishers in the folders, in the order of their paths.
std::vector<Published> ReadPublishers(const std::vector<std::string>& folders);
/// The same without their values, whether they are readable or not; nothing says that they are alive.
std::vector<Published> FindPublishers(const std::vector<std::string>& folders);
/// The publisher of a monitor file, as its path names it.
Published PublisherOf(const std::string& path);
/// Reads any monitor file.
Published ReadPublished(const std::string& path);
