#include <qel/hmxconfigfile.h>
#include <qel/qelcpp.h>
#include <qel/qelpath.h>
#include <qel/xiolib.h>
#include <qel/xmonlib.h>

#include "support/tempdir.h"
#include "support/test.h"
#include "support/thrown.h"

using namespace std::literals;

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

TEST(AnyPath, ClassesOfFilesTakeTheSamePathsAndTexts)
{
    const TempDir dir;
    const Path host = Path(std::string(dir.path(""))) / "back\\slash"; // no native path but the converted one
    const std::string native = std::string(dir.path("")) + "\\native";
    const auto sizeOf = [](const auto& path) {
        fsNodeInfo info;
        return info.Initialize(path) ? info.getSize() : -1.0;
    };

    qel::own(ioFileStream::Create(host, ioWriteOnly, 0))->WriteString(u"host"s);
    qel::own(ioFileStream::Open(native, ioWriteOnly))->WriteString(u8"grün");
    EXPECT_EQ(qel::own(ioFileStream::Open(host, ioReadOnly))->ReadString("\n"), "host");
    EXPECT_TRUE(sizeOf(host) > 0 && sizeOf(native) == sizeOf(native.c_str()));
    EXPECT_EQ(sizeOf(host.c_str()), -1.0);

    for (const bool isHost : {true, false}) {
        const auto with = [&](auto f) { return isHost ? f(host) : f(native); };
        const auto published = qel::own(with([](auto& path) { return monFile::Create(path, u"title"); }));
        published->Int("count"s)->setValue(7);
        published->String(u"state", 8)->setValue("on"s);
        const auto watched = qel::own(with([](auto& path) { return monFile::Open(path); }));
        EXPECT_TRUE(watched->getTitle() == "title" && watched->Int(xstring("count"))->getValue() == 7 &&
                    watched->Bool("b"sv) && watched->Real("r"sv));
    }

    fsRemove(host, fsSimple);
    hmxConfigFile file;
    struct None : hmxConfigOddityHandler
    {
        void Invoke(hmxConfigOddity, long long, const char* text, long long) override
        {
            ADD_FAILURE() << text;
        }
    } none;
    ASSERT_TRUE(file.Open(host, hmxConfigFile::ReadWrite, 1s));
    EXPECT_TRUE(file.SetValue(u"key", "value"s) && file.SetValue("other", xstring("x")) &&
                file.DeleteValue("other"s));
    EXPECT_EQ(file.GetValue("key"s), "value");
    EXPECT_EQ(hmxConfigFile::GetHolders(host)->getarraysize(), 1);
    EXPECT_TRUE(file.CloseChecked() && file.Open(host, hmxConfigFile::ReadOnly) &&
                !file.Open(native + "no", hmxConfigFile::ReadOnly));
    EXPECT_TRUE(hmxConfigFile::Check(host, none) && hmxConfigFile::Check(host, none, 1.0));
    EXPECT_EQ(monFile::Open(Path()), nullptr);
}
