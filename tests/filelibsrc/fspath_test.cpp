#include <qel/fsexception.h>
#include <qel/fspath.h>

#include "filelibsrc/raised.h"
#include "support/test.h"
#include "support/texts.h"

namespace {

std::string times(std::size_t count, char c)
{
    return std::string(count, c);
}

using Unary = xstring (*)(const char*);

struct Row
{
    Unary operation;
    const char* path;
    const char* result;
};

} // namespace

TEST(Paths, AreSplitAtTheirEnds)
{
    const Row rows[] = {
        {fsGetHeadPath, "C:\\a\\b", "C:\\a"}, {fsGetHeadPath, "C:\\a", "C:\\"},
        {fsGetHeadPath, "/a", "\\"},          {fsGetHeadPath, "a", "(null)"},
        {fsGetHeadPath, "C:", "(null)"},      {fsGetHeadPath, "", "(null)"},
        {fsGetHeadPath, "a/b/", "a\\b"},      {fsGetHeadPath, "\\", "\\"},
        {fsGetHeadPath, "1:/x", "1:\\"},      {fsGetHeadPath, "C:a\\b", "C:a"},
        {fsGetHeadPath, "a\\\\b", "a\\"},     {fsGetHeadEntry, "a/b/c", "a"},
        {fsGetHeadEntry, "/a/b", "\\"},       {fsGetHeadEntry, "abc", "abc"},
        {fsGetHeadEntry, "C:/a", "C:\\"},     {fsGetHeadEntry, "C:", "(null)"},
        {fsGetTailPath, "a/b/c", "b\\c"},     {fsGetTailPath, "C:\\a\\b", "a\\b"},
        {fsGetTailPath, "a", "(null)"},       {fsGetTailPath, "a\\", "(null)"},
        {fsGetTailPath, "/a/b", "a\\b"},      {fsGetTailPath, "C:", "(null)"},
        {fsGetTailEntry, "a/b/c", "c"},       {fsGetTailEntry, "a\\b\\", "(null)"},
        {fsGetTailEntry, "abc", "abc"},       {fsGetTailEntry, "C:x", "C:x"},
        {fsGetTailEntry, "", "(null)"},       {fsGetTailEntry, "\xC3\xA9/\xFF", "\xFF"},
    };
    for (const Row& row : rows)
        EXPECT_EQ(textOf(row.operation(row.path)), row.result) << row.path;
    for (const Unary operation :
         {fsGetHeadPath, fsGetHeadEntry, fsGetTailPath, fsGetTailEntry, fsPathToNative})
        for (const char* null : {xnullstr, static_cast<const char*>(nullptr)})
            EXPECT_EQ(textOf(operation(null)), "(null)");
}

TEST(Paths, RejectRemoteFormsWhereALocalOneIsRequired)
{
    for (const auto& [operation, name] : {std::pair<Unary, const char*>{fsGetHeadPath, "fsGetHeadPath"},
                                          {fsGetHeadEntry, "fsGetHeadEntry"},
                                          {fsGetTailPath, "fsGetTailPath"},
                                          {fsGetTailEntry, "fsGetTailEntry"}})
        EXPECT_EQ(raisedBy([called = operation] { called("host::/a"); }), Raised(5, name, "host::/a"));
}

TEST(Paths, HaveANativeFormUpTo259Bytes)
{
    const std::string longest = "a/" + times(257, 'b'), tooLong = longest + "b";

    EXPECT_EQ(textOf(fsPathToNative("a/b\\c//d/")), "a\\b\\c\\\\d\\");
    EXPECT_EQ(textOf(fsPathToNative(longest.c_str())), "a\\" + times(257, 'b'));
    EXPECT_EQ(textOf(fsPathToNative(times(400, 'b').c_str())), times(400, 'b'));
    EXPECT_EQ(textOf(fsGetTailEntry((times(300, 'a') + "\\x").c_str())), "x");

    EXPECT_EQ(raisedBy([&] { fsPathToNative(tooLong.c_str()); }), Raised(5, "fsPathToNative", tooLong));
    EXPECT_EQ(raisedBy([&] { fsGetTailPath(tooLong.c_str()); }), Raised(5, "fsGetTailPath", tooLong));
    EXPECT_EQ(raisedBy([&] { fsGetHeadPath(times(260, 'b').c_str()); }),
              Raised(5, "fsGetHeadPath", times(260, 'b')));
}

TEST(Paths, AreAbsoluteWithASlashOrADriveAndASeparator)
{
    for (const char* path : {"/", "/a", "C:/", "z:\\x"})
        EXPECT_EQ(fsIsPathAbsolute(path), 1) << path;
    for (const char* path :
         {"", "a", "\\name", "C:", "C:name", "1:\\x", "\xE4:\\x", static_cast<const char*>(nullptr)})
        EXPECT_EQ(fsIsPathAbsolute(path), 0);
}

TEST(Paths, AreJoinedWithOneSeparator)
{
    EXPECT_EQ(textOf(fsCatPaths("C:/dir", "sub/file")), "C:\\dir\\sub\\file");
    EXPECT_EQ(textOf(fsCatPaths("dir/", "x")), "dir\\\\x");
    EXPECT_EQ(textOf(fsCatPaths("", "x")), "\\x");
    EXPECT_EQ(textOf(fsCatPaths("dir", "C:name")), "dir\\C:name");
    EXPECT_EQ(textOf(fsCatPaths("dir", "\\name")), "dir\\\\name");
    EXPECT_EQ(textOf(fsCatPaths(times(150, 'd').c_str(), times(108, 'r').c_str())).size(), 259u);

    for (const char* relative : {"/name", "C:\\name", "host::x"})
        EXPECT_EQ(raisedBy([&] { fsCatPaths("dir", relative); }), Raised(5, "fsCatPaths", relative));
    const Raised withoutPath(5, "fsCatPaths", "(null)");
    EXPECT_EQ(raisedBy([] { fsCatPaths(times(150, 'd').c_str(), times(120, 'r').c_str()); }), withoutPath);
    EXPECT_EQ(raisedBy([] { fsCatPaths(times(150, 'd').c_str(), times(109, 'r').c_str()); }), withoutPath);
    EXPECT_EQ(raisedBy([] { fsCatPaths(times(300, 'd').c_str(), "r"); }), withoutPath);
}

TEST(Paths, HaveARemoteForm)
{
    EXPECT_EQ(textOf(fsMkRemPath("host", "/a/b")), "host::\\a\\b");
    EXPECT_EQ(textOf(fsMkRemPath(xnullstr, "/a::/b")), "/a::/b");
    EXPECT_EQ(textOf(fsMkRemPath("", "x")), "::x");
    EXPECT_EQ(textOf(fsMkRemPath("h", times(300, 'l').c_str())), "h::" + times(300, 'l'));
    EXPECT_EQ(textOf(fsGetAddress("host:1::/a::b")), "host:1");
    EXPECT_EQ(textOf(fsGetAddress("::x")), "");
    EXPECT_EQ(textOf(fsGetAddress("C:/x")), "(null)");
    EXPECT_EQ(textOf(fsGetLocalPath("host::/a/b")), "\\a\\b");
    EXPECT_EQ(textOf(fsGetLocalPath("host::a::b")), "a::b");
    EXPECT_EQ(textOf(fsGetLocalPath("/not/remote")), "/not/remote");

    EXPECT_EQ(raisedBy([] { fsMkRemPath("host", "a::b"); }), Raised(5, "fsMkRemPath", "a::b"));
    const std::string local = "/" + times(259, 'l');
    EXPECT_EQ(raisedBy([&] { fsMkRemPath("h", local.c_str()); }), Raised(5, "fsMkRemPath", "h::" + local));
    EXPECT_EQ(raisedBy([&] { fsGetLocalPath(("h::" + local).c_str()); }), Raised(5, "fsMkRemPath", local));
}

TEST(Paths, IntersectInWholeEntries)
{
    for (const auto& [a, b, common] : rowsOf<3>(
             "C:/a/b/c,C:/a/b/d,C:\\a\\b|C:/a,C:/b,C:\\|/a/x,/a/y,\\a|a/b,c/d,(null)|a,a/b,a|"
             "C:/Dir,C:/dir,C:\\|abc,abd,(null)|/,/x,\\|C:\\,C:\\,C:\\|a/b/,a/b/,a\\b\\|1:,1:,1:|ab/c,ab,ab"))
        EXPECT_EQ(textOf(fsIntersectPaths(a.c_str(), b.c_str())), common) << a << " " << b;

    // Both paths are checked for one fault before either is checked for the next.
    EXPECT_EQ(raisedBy([] { fsIntersectPaths("a::b", ""); }), Raised(5, "fsIntersectPaths", ""));
    EXPECT_EQ(raisedBy([] { fsIntersectPaths("C:", "x::y"); }), Raised(5, "fsIntersectPaths", "C:"));
    EXPECT_EQ(raisedBy([] { fsIntersectPaths(times(260, 'a').c_str(), "x::y"); }),
              Raised(5, "fsIntersectPaths", "x::y"));
    EXPECT_EQ(raisedBy([] { fsIntersectPaths("a", times(260, 'b').c_str()); }),
              Raised(5, "fsIntersectPaths", times(260, 'b')));
}

TEST(Paths, AreSeparatedInTheirBuffer)
{
    char path[] = "C:\\a\\b";
    EXPECT_EQ(textOf(fsSeparatePathTail(path + 4)), "b");
    EXPECT_EQ(textOf(fsSeparatePathHead(path, path + 4)), "C:\\a");
    EXPECT_EQ(textOf(fsSeparatePathHead(path, path + 2)), "C:\\");
    EXPECT_STREQ(path, "C:\\");
    EXPECT_EQ(textOf(fsSeparatePathTail(path + 2)), "(null)");
}
