#pragma once

#include <algorithm>
#include <array>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <qel/xstring.h>

/// The text of a string, "(null)" for null.
inline std::string textOf(const xstring& text)
{
    return text == nullptr ? "(null)" : text.CastToCString();
}

/// The texts of which `all` consists, with a separator between each two of them.
inline std::vector<std::string> textsOf(std::string_view all, char separator = '|')
{
    std::vector<std::string> texts;
    for (std::size_t at = 0, end; at <= all.size(); at = end + 1) {
        end = std::min(all.find(separator, at), all.size());
        texts.emplace_back(all.substr(at, end - at));
    }
    return texts;
}

/// The rows of a table, with bars between the rows and commas between the cells of one.
template<std::size_t n>
std::vector<std::array<std::string, n>> rowsOf(std::string_view all)
{
    std::vector<std::array<std::string, n>> rows;
    for (const std::string& row : textsOf(all)) {
        const std::vector<std::string> cells = textsOf(row, ',');
        rows.emplace_back();
        std::copy_n(cells.begin(), n, rows.back().begin());
    }
    return rows;
}

/// The names in the directory `path`, in no order.
inline std::vector<std::string> namesIn(const std::string& path)
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(path))
        names.push_back(entry.path().filename().string());
    return names;
}
