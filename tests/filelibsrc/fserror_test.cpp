#include <gtest/gtest.h>

#include <sstream>

#include <qel/fserror.h>
#include <qel/platform/lasterror.h>

#include "../qel/qelstd/filelibsrc/fserror_p.h"
#include "filelibsrc/raised.h"

namespace {

std::string printed(fsXException& exception)
{
    std::ostringstream os;
    exception.Print(os);
    return os.str();
}

qelXFunc* function()
{
    return new (pDefMemMgr) qelXFunc("fsCatPaths");
}

} // namespace

TEST(FileErrors, AreRaisedAsTheClassOfTheirNumber)
{
    const char* const texts[] = {"IO Error",          "Quota Exhausted",
                                 "Disk Full",         "Invalid file name",
                                 "Invalid path",      "File or directory does not exist",
                                 "File exists",       "Symbolic links not supported",
                                 "Permission Denied", "Signal caught",
                                 "Internal error"};
    for (int code = 1; code <= 11; ++code) {
        EXPECT_TRUE(describeThrown<fsXException>([&] { fsRaise(static_cast<fsErrorCode>(code), "f", "a/b"); },
                                                 [&](fsXException* raised) {
                                                     EXPECT_EQ(xrcgetcount(raised), 1);
                                                     EXPECT_TRUE(raised->getDescription() == texts[code - 1]);
                                                     EXPECT_TRUE(raised->getPath() == "a/b");
                                                     return qelXExternFunc::softcast(raised) != nullptr;
                                                 }));
        EXPECT_EQ(raisedBy([&] { fsRaise(static_cast<fsErrorCode>(code), "f", nullptr); }),
                  Raised(code, "f", "(null)"));
    }
}

TEST(FileErrors, AreTranslatedFromPlatformNumbers)
{
    const struct
    {
        int code;
        std::vector<unsigned> errors;
    } rows[] = {
        {6, {2, 3, 267, 1751}},
        {9, {5, 12, 65, 994, 0x80030005, 0x80070005}},
        {5, {32, 206}},
        {3, {39, 112, 0x80030070}},
        {7, {80, 145, 183}},
        {10, {162}},
        {1, {995, 996, 997, 1016, 1117, 0x80028CA2}},
        {2, {1816}},
        {11, {0, 1, 17, 87, 170, 1921, 0xFFFFFFFF}},
    };
    for (const auto& row : rows)
        for (const unsigned error : row.errors) {
            SetLastError(error);
            EXPECT_EQ(raisedBy([] { fsRaiseLastError("f", "p"); }), Raised(row.code, "f", "p")) << error;
        }
}

TEST(FileErrors, PrintALineForEachThingKnown)
{
    fsXInvalidPath about("a", "Invalid path", function());
    fsXInvalidPath aboutNothing(xnullstr, "Invalid path", nullptr);

    EXPECT_EQ(printed(about),
              "Exception: \"Invalid path\"\n\tin function \"fsCatPaths\"\n\t( Path: \"a\" )\n");
    EXPECT_EQ(printed(aboutNothing).find("Path: "), std::string::npos);
}

TEST(FileErrors, AreCreatedWithTheNativePathWhereThereIsOne)
{
    const std::string tooLong = "/" + std::string(299, 'x');
    const xrchandle<fsXException> plain(fsXException::Create("a/b", "text", function()));
    const xrchandle<fsXException> asGiven(fsXException::Create(tooLong.c_str(), "text", function()));
    const xrchandle<fsXException> without(fsXException::Create(xnullstr, "text", function()));

    EXPECT_TRUE(plain->getPath() == "a\\b");
    EXPECT_TRUE(asGiven->getPath() == tooLong.c_str());
    EXPECT_TRUE(without->getPath() == nullptr);
    EXPECT_TRUE(plain->getDescription() == "text");
}
