#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <qel/base/btkstrbuf.h>

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

Holder hold(const WideText& text)
{
    return Holder(btkStrBuf::Create<unsigned short>(text, wideLength(text)));
}

Holder share(const Holder& held)
{
    held->Lock();
    return Holder(held.get());
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

TEST(btkStrBuf, StartsWithTheEmptyTextAndRoomToWrite)
{
    char* mb;
    const Holder held(btkStrBuf::AllocMB(100, &mb));
    EXPECT_EQ(mbOf(held), "");

    std::memset(mb, 'x', 99);
    mb[99] = 0;
    held->CommitMB();

    EXPECT_EQ(held->GetMBLength(), 99u);
    EXPECT_EQ(mbOf(held), std::string(99, 'x'));
}

TEST(btkStrBuf, ConvertsOnceAndKeepsTheAddressesOfBothForms)
{
    const Holder held = hold("h\xC3\xA9!");
    char* mb;
    unsigned short *wide, *again;
    held->Lock(&mb, &wide);
    held->Unlock();
    EXPECT_STREQ(mb, "h\xC3\xA9!");
    EXPECT_EQ(wide, nullptr) << "nobody has asked for it";

    held->GetWC(&wide);
    held->GetWC(&again);

    EXPECT_EQ(wide, again);
    EXPECT_EQ(wideString(wide), u"h\u00E9!");
    EXPECT_EQ(held->GetWCLength(), 3u);
    EXPECT_EQ(held->GetMBLength(), 4u);
    char* mbAgain;
    held->Lock(&mbAgain, &again);
    held->Unlock();
    EXPECT_EQ(mbAgain, mb);
    EXPECT_EQ(again, wide);
}

TEST(btkStrBuf, HasNoMultibyteFormOfAnUnpairedSurrogate)
{
    Holder held = hold(WideText(u"a\xD800"));
    char* mb = nullptr;

    EXPECT_EQ(held->GetMB(&mb), nullptr);
    EXPECT_EQ(held->ResizeMB(10, &mb, true), nullptr);

    EXPECT_EQ(mb, nullptr);
    EXPECT_EQ(wideOf(held), u"a\xD800") << "still held";
    EXPECT_STREQ((resize(held, 2, false), mbOf(held).c_str()), "") << "the text was not asked for";
}

TEST(btkStrBuf, WriterOfASharedBufferGetsACopy)
{
    Holder writer = hold("shared");
    const Holder reader = share(writer);

    std::strcpy(resize(writer, 20, true) + 6, " no more");
    writer->CommitMB();

    EXPECT_NE(writer, reader);
    EXPECT_EQ(mbOf(writer), "shared no more");
    EXPECT_EQ(mbOf(reader), "shared");
}

TEST(btkStrBuf, ResizeKeepsTheTextOfTheRequestedForm)
{
    for (const std::size_t size : {1u, 7u, 1000u}) {
        Holder mbFirst = hold("both \xE2\x82\xAC");
        unsigned short* wide;
        mbFirst.reset(mbFirst.release()->ResizeWC(size, &wide, true));
        EXPECT_EQ(wideString(wide), u"both \u20AC");

        Holder wideFirst = hold(WideText(u"both \u20AC"));
        const Holder other = share(wideFirst);
        EXPECT_STREQ(resize(wideFirst, size, true), "both \xE2\x82\xAC");
        EXPECT_EQ(wideOf(other), u"both \u20AC");
    }
}

TEST(btkStrBuf, DropsTheStaleFormWhenWritingEnds)
{
    Holder held = hold("abc");
    EXPECT_EQ(wideOf(held), u"abc");

    resize(held, 4, true)[1] = 'X';
    held->CommitMB();

    EXPECT_EQ(wideOf(held), u"aXc");
}

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

TEST(btkStrBuf, AppendsInPlaceOnlyToAnUnsharedBuffer)
{
    Holder held = hold("abc");
    EXPECT_TRUE(held->AppendInPlace('d'));
    EXPECT_TRUE(held->AppendInPlace("ef", 2));
    EXPECT_EQ(mbOf(held), "abcdef");

    {
        const Holder second = share(held);
        EXPECT_FALSE(held->AppendInPlace('x'));
        EXPECT_FALSE(held->AppendInPlace("x", 1));
        EXPECT_EQ(mbOf(second), "abcdef");
    }
    EXPECT_TRUE(held->AppendInPlace("g", 1)) << "held alone again";
    EXPECT_TRUE(held->AppendInPlace('h'));
    EXPECT_FALSE(held->AppendInPlace(std::string(100, 'x').c_str(), 100)) << "no room";
    EXPECT_EQ(wideOf(held), u"abcdefgh");
    EXPECT_FALSE(held->AppendInPlace('x')) << "the wide form would be stale";
    EXPECT_FALSE(held->AppendInPlace<unsigned short>(WideText(u"x"), 1)) << "began as multibyte text";
    EXPECT_EQ(mbOf(held), "abcdefgh");
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

TEST(btkStrBuf, TwoThreadsMayConvertTheSameBuffer)
{
    for (int round = 0; round < 300; ++round) {
        Holder mine = hold(round % 2 ? "mul\xC3\xADti" : "plain");
        const std::u16string expected = round % 2 ? u"mul\u00EDti" : u"plain";
        Holder theirs = share(mine);
        std::u16string seen;
        std::thread reader([&, held = std::move(theirs)]() mutable {
            seen = wideOf(held);
            held.reset();
        });

        EXPECT_EQ(wideOf(mine), expected);
        // Shared or not by now: the reader's text does not change.
        std::strcpy(resize(mine, 20, true), "written");
        mine->CommitMB();
        reader.join();

        EXPECT_EQ(seen, expected);
        EXPECT_EQ(wideOf(mine), u"written");
    }
}
