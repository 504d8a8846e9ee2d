#include <qel/base/btkstrbuf.h>

#include "support/test.h"
#include "support/widetext.h"

namespace {

struct Unlock
{
    void operator()(btkStrBuf* buffer) const { buffer->Unlock(); }
};
using Holder = std::unique_ptr<btkStrBuf, Unlock>;

Holder hold(const char* text)
{
    return Holder(btkStrBuf::Create(text, std::strlen(text)));
}

/// Makes `held` writable; it may be another buffer afterwards.
char* resize(Holder& held, std::size_t size, bool keep)
{
    char* mb;
    held.reset(held.release()->ResizeMB(size, &mb, keep));
    return mb;
}

std::string mbOf(const Holder& held)
{
    char* mb = nullptr;
    return held->GetMB(&mb) == nullptr ? "(none)" : mb;
}

std::u16string wideOf(const Holder& held)
{
    unsigned short* wide;
    held->GetWC(&wide);
    return wideString(wide);
}

} // namespace

TEST(btkStrBuf, TextEndsAtItsFirstZeroAndAlwaysInsideTheBuffer)
{
    Holder held = hold("");
    std::memcpy(resize(held, 8, false), "ab\0cdef", 8);
    held->CommitMB();
    EXPECT_EQ(held->GetMBLength(), 2u);

    unsigned short* wide;
    Holder unterminated(btkStrBuf::AllocWC(16, &wide));
    for (int i = 0; i < 8; ++i)
        wide[i] = 'x';
    unterminated->CommitWC();
    EXPECT_GE(unterminated->GetWCLength(), 7u);
    EXPECT_EQ(wideOf(unterminated).size(), unterminated->GetWCLength());
}

TEST(btkStrBuf, FillsItsRoomToTheLastByteAndNotBeyond)
{
    Holder held = hold("");
    resize(held, 1000, false);
    held->CommitMB(0);
    std::size_t appended = 0;
    while (held->AppendInPlace('x')) // the sanitizer's run watches the end
        ++appended;
    EXPECT_GE(appended, 999u);
    EXPECT_EQ(mbOf(held), std::string(appended, 'x'));

    // With the other form present, growing must not enable appending single bytes again.
    EXPECT_EQ(wideOf(held).size(), appended);
    resize(held, appended + 100, true);
    EXPECT_FALSE(held->AppendInPlace('x'));
}

TEST(btkStrBuf, RejectsSizesBeyondItsLimitUnchanged)
{
    Holder held = hold("kept");
    char* mb;
    unsigned short* wide;
    for (const std::size_t size : {std::size_t(1) << 31, std::size_t(1) << 32, ~std::size_t(0)}) {
        EXPECT_THROW(btkStrBuf::AllocMB(size, &mb), std::length_error);
        EXPECT_THROW(btkStrBuf::Create("x", size), std::length_error);
        EXPECT_THROW(held->ResizeMB(size, &mb, true), std::length_error);
        EXPECT_THROW(held->ResizeMB(size, &mb, false), std::length_error);
        EXPECT_THROW(held->ResizeWC(size, &wide, true), std::length_error);
    }
    EXPECT_EQ(mbOf(held), "kept");
}
