#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

#include <qel/qelpath.h>
#include <qel/tmtime.h>

#include "support/tempdir.h"
#include "support/thrown.h"

namespace {

using Path = std::filesystem::path;

void write(const Path& path, const char* text)
{
    std::ofstream(path) << text;
}

} // namespace

TEST(AnyPath, HostPathsNameWhatTheOperatingSystemNames)
{
    const TempDir dir;
    const Path root(std::string(dir.path("")));
    const Path odd = root / "back\\slash"; // one name on this host, two as a native path

    write(odd, "text");
    EXPECT_TRUE(fshExists(odd) && fshIsFile(odd) && !fshExists(odd.c_str()));
    fsCopy(odd, root / "copy", fsForceNew, fsNewLink, fsSimple);
    EXPECT_EQ(fsCalculateCheckSum(root / "copy"), fsCalculateCheckSum(odd));
    fsMove(root / "copy", (root / "moved").string(), fsSimple);
    EXPECT_EQ(fshGetSize(xstring((root / "moved").string())), 4.0);
    fsRemove(odd, fsSimple);
    EXPECT_FALSE(std::filesystem::exists(odd));
    EXPECT_EQ(fsListDirectory(root, nullptr)->getarraysize(), 1);
    EXPECT_EQ(thrownBy([] { fsRemove(Path(), fsSimple); }), "filelib::XInvalidPath");
}

TEST(AnyPath, OtherTextsAreNativePaths)
{
    const TempDir dir;
    const std::string native = std::string(dir.path("")) + "\\sub\\file";

    fsCreateDir((std::string(dir.path("")) + "\\sub"), fsSimple);
    write(Path(std::string(dir.path("sub/file"))), "x");
    EXPECT_TRUE(fshExists(native) && fshExists(native.c_str()) && fshExists(xstring(native)));
    EXPECT_EQ(qel::path(native), Path(std::string(dir.path("sub/file"))));
    EXPECT_TRUE(qel::path(nullptr).empty());
}
