
#include <qel/fsdir.h>
#include <qel/platform/errornumbers.h>
#include <qel/platform/lasterror.h>

#include "support/tempdir.h"
#include "support/test.h"
#include "support/texts.h"

namespace {

std::set<std::string> namesIn(const char* directory, const char* pattern)
{
    fsiDir dir;
    std::set<std::string> names;
    EXPECT_TRUE(dir.Open(directory));
    xstring name;
    while (dir.ReadNextMatching(pattern, name) == fsIOOk)
        names.insert(name.CastToCString());
    EXPECT_TRUE(dir.Close());
    return names;
}

} // namespace

TEST(fsMatchesPattern, HandlesStarsAndQuestionMarks)
{
    for (const auto& [name, pattern] : rowsOf<2>("abc,a*c|ac,a*c|abbc,a*c|x,?|a,a**|,*|,|[a],[a]|a.b.c,*.?|"
                                                 "mississippi,m*iss*ip?i|a*b,a?b|\xC3\xA4,?|\xFF,?"))
        EXPECT_TRUE(fsMatchesPattern(name.c_str(), pattern.c_str())) << name << " like " << pattern;
    for (const auto& [name, pattern] : rowsOf<2>("ab,a*c|,?|x.txt,*.TXT|a,|aXbXc,*X*X*X*"))
        EXPECT_FALSE(fsMatchesPattern(name.c_str(), pattern.c_str())) << name << " like " << pattern;
}

TEST(fsiDir, ListsEveryNameOnceWithoutDotEntries)
{
    TempDir dir;
    dir.write("one.txt");
    dir.write("two.txt");
    dir.write("a\\b");
    dir.makeDir("sub*?");
    dir.write("sub*?/in");
    dir.makeDir("empty");

    EXPECT_EQ(namesIn(dir.path(), "*"), (std::set<std::string>{"one.txt", "two.txt",
                                                               "a\xEF\x81\x9C"
                                                               "b",
                                                               "sub*?", "empty"}));
    EXPECT_EQ(namesIn(dir.path(), "*.txt"), (std::set<std::string>{"one.txt", "two.txt"}));
    EXPECT_EQ(namesIn(dir.path("sub*?"), "*"), std::set<std::string>{"in"});

    fsiDir entries;
    xstring name("unchanged");
    ASSERT_TRUE(entries.Open(dir.path("empty")));
    for (const char* none : {xnullstr, "", static_cast<const char*>(nullptr)})
        EXPECT_EQ(entries.ReadNextMatching(none, name), fsIOEnd);
    EXPECT_TRUE(name == "unchanged");
    EXPECT_EQ(entries.Read(name), fsIOEnd);
    EXPECT_EQ(entries.ReadNextMatching("*", name), fsIOEnd);
    EXPECT_TRUE(name == nullptr);
}

TEST(fsiDir, ReportsWhyItCannotBeOpened)
{
    TempDir dir;
    dir.write("file");
    fsiDir entries;
    xstring name;

    EXPECT_FALSE(entries.Open(dir.path("missing")));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(entries.Open(dir.path("file")));
    EXPECT_EQ(GetLastError(), ERROR_DIRECTORY);
    EXPECT_FALSE(entries.Open(std::string(260, 'd').c_str()));
    EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);
    EXPECT_EQ(entries.Read(name), fsIOFailed);
    EXPECT_FALSE(entries.Close());
    std::string longPath = dir.path();
    while (longPath.size() < 259)
        longPath += '/';
    EXPECT_TRUE(entries.Open(longPath.c_str()));
}
