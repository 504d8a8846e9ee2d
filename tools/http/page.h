#pragma once

#include <string_view>

/// A file of the page of `qel mon serve`.
struct PageFile
{
    std::string_view path; // of the request
    const char* type;
    std::string_view content;
};

/// Returns the file at the path; null: there is none.
const PageFile* PageFileAt(std::string_view path);
