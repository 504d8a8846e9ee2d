#include <qel/filelib.h>
#include <qel/platform/errornumbers.h>
#include <qel/platform/lasterror.h>

#include "../qel/qelstd/filelibsrc/fsexception_p.h"
#include "filelibsrc/raised.h"
#include "support/test.h"

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
        {6, {ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ERROR_DIRECTORY, EPT_S_INVALID_ENTRY}},
        {9,
         {ERROR_ACCESS_DENIED, ERROR_INVALID_ACCESS, ERROR_NETWORK_ACCESS_DENIED, ERROR_EA_ACCESS_DENIED,
          STG_E_ACCESSDENIED, E_ACCESSDENIED}},
        {5, {ERROR_SHARING_VIOLATION, ERROR_FILENAME_EXCED_RANGE}},
        {3, {ERROR_HANDLE_DISK_FULL, ERROR_DISK_FULL, STG_E_MEDIUMFULL}},
        {7, {ERROR_FILE_EXISTS, ERROR_DIR_NOT_EMPTY, ERROR_ALREADY_EXISTS}},
        {10, {ERROR_SIGNAL_PENDING}},
        {1,
         {ERROR_OPERATION_ABORTED, ERROR_IO_INCOMPLETE, ERROR_IO_PENDING, ERROR_REGISTRY_IO_FAILED,
          ERROR_IO_DEVICE, TYPE_E_IOERROR}},
        {2, {ERROR_NOT_ENOUGH_QUOTA}},
        {11,
         {ERROR_SUCCESS, 1, ERROR_NOT_SAME_DEVICE, ERROR_INVALID_PARAMETER, ERROR_BUSY,
          ERROR_CANT_RESOLVE_FILENAME, 0xFFFFFFFF}},
    };
    for (const auto& row : rows)
        for (const unsigned error : row.errors) {
            SetLastError(error);
            EXPECT_EQ(raisedBy([] { fsRaiseLastError("f", "p"); }), Raised(row.code, "f", "p")) << error;
        }
}

TEST(FileErrors, CarryThePlatformsMessage)
{
    const auto saidBy = [](auto action) {
        SetLastError(1);
        return describeThrown<fsXException>(action, [](fsXException* raised) {
            const xstring text = raised->getPlatformText();
            return std::to_string(raised->getPlatformError()) +
                   (GetLastError() == raised->getPlatformError() ? " " : " is not the last error ") +
                   (text == nullptr ? "(null)" : text.CastToCString());
        });
    };
    SetLastError(0);
    const auto last = [](unsigned error) {
        return [error] {
            SetLastError(error);
            fsRaiseLastError("f", "p");
        };
    };
    EXPECT_EQ(saidBy(last(19)), "19 read-only volume");
    EXPECT_EQ(saidBy(last(170)), "170 busy");
    EXPECT_EQ(saidBy(last(77777)), "77777 (null)");
    EXPECT_EQ(saidBy([] { fsRemove("C:", fsSimple); }), "161 invalid path");
    EXPECT_EQ(saidBy([] { fsRename("a", "b/c"); }), "123 invalid name");
    EXPECT_EQ(saidBy([] { fsReadLink("a"); }), "50 not supported");
    EXPECT_EQ(saidBy([] { fsRemove(std::string(300, 'x').c_str(), fsSimple); }), "206 name or path too long");
    EXPECT_EQ(saidBy([] { fsCopy("/tmp", "/tmp", fsMerge, fsNewLink, fsSimple); }),
              "266 cannot be copied onto or into itself");
    EXPECT_EQ(saidBy([] { fsCopy("/none/x", "/tmp/y", fsMerge, fsNewLink, fsSimple); }),
              "3 a directory on the way is not found");
}

TEST(FileErrors, NameThePathAndTheReasonInTheirText)
{
    const auto textOf = [](unsigned error, const char* path) {
        return describeThrown(
            [&] {
                SetLastError(error);
                fsRaiseLastError("f", path);
            },
            [](xthrowable* raised) { return std::string(qelTextOf(raised)); });
    };
    EXPECT_EQ(textOf(170, "a/b"), "Internal error (path a/b, busy)");
    EXPECT_EQ(textOf(77777, "a/b"), "Internal error (path a/b)");
    EXPECT_EQ(textOf(170, nullptr), "Internal error (busy)");
}

TEST(FileErrors, PrintALineForEachKnownField)
{
    fsXInvalidPath about("a", "Invalid path", function());
    fsXInvalidPath aboutEmpty("", "Invalid path", function());
    fsXInvalidPath aboutNothing(xnullstr, "Invalid path", nullptr);

    EXPECT_EQ(printed(about),
              "Exception: \"Invalid path\"\n\tin function \"fsCatPaths\"\n\t( Path: \"a\" )\n");
    EXPECT_TRUE(printed(aboutEmpty).ends_with("\t( Path: \"\" )\n"));
    EXPECT_EQ(printed(aboutNothing), "Exception: \"Invalid path\"\n\tin function \"nil\"\n");
}

TEST(FileErrors, AreCreatedWithTheNativePathIfItExists)
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
