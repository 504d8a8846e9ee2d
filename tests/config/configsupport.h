#pragma once

#include <gtest/gtest.h>

#include <qel/hmxconfigfile.h>

#include "support/tempdir.h"
#include "support/texts.h"

class Config : public testing::Test
{
protected:
    /// Opens the file for updating, sets one value and closes.
    bool update(const char* key, const char* value)
    {
        hmxConfigFile file;
        return file.Open(path(), hmxConfigFile::ReadWrite) && file.SetValue(key, value);
    }

    /// The keys of an open file, each with its value, in one text.
    static std::string listOf(const hmxConfigFile& file)
    {
        std::string list;
        const xrchandle<xstringsequence> keys = file.GetKeys();
        for (int i = 0; i < keys->getarraysize(); ++i)
            list += textOf(keys->get(i)) + "=" + textOf(file.GetValue(keys->get(i).CastToCString())) + ";";
        return list;
    }

    const char* path() const { return name.c_str(); }
    std::string content() const { return dir.read("config"); }

    /// The number of nodes in the directory: only the file, if nothing was left behind.
    int nodes() const { return static_cast<int>(namesIn(dir.path()).size()); }

    TempDir dir{TempDir::InMemory}; // thousands of updates are synced
    const std::string name = dir.path("config");
};
