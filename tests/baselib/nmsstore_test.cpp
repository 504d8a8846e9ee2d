#include <sys/socket.h>

#include <qel/base/nmsstore.h>

#include "support/test.h"

namespace {

struct Ends
{
    Ends()
    {
        int ends[2] = {-1, -1};
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
        near = nmsChannel(btkFd(ends[0]));
        far = nmsChannel(btkFd(ends[1]));
    }
    // The messages that the far end receives at once.
    std::vector<std::string> received()
    {
        std::vector<std::string> texts;
        far.Receive([&](nmsStoreMessage kind, nmsPartReader parts) {
            const std::string text = parts.TakeText();
            texts.push_back(std::to_string(static_cast<int>(kind)) + ' ' + text);
        });
        return texts;
    }

    nmsChannel near, far;
};

std::string textPart(const std::string& text)
{
    std::string part;
    nmsPutText(part, text);
    return part;
}

} // namespace

TEST(nmsstore, PartsAreReadAsWrittenAndNothingAfterAnIncompleteOne)
{
    std::string parts;
    nmsPutNumber(parts, 0xFEDCBA9876543210);
    nmsPutText(parts, std::string("a\0b", 3));
    nmsPutRecord(parts, {7, {{"_ServerName", "words"}}});
    nmsPartReader reader(parts);
    EXPECT_EQ(reader.TakeNumber(), 0xFEDCBA9876543210);
    EXPECT_EQ(reader.TakeText(), std::string("a\0b", 3));
    EXPECT_EQ(*reader.TakeRecord().Find("_ServerName"), "words");
    EXPECT_TRUE(reader.IsAtEnd());

    for (std::size_t size = 0; size < parts.size(); ++size) {
        nmsPartReader cut(std::string_view(parts).substr(0, size));
        cut.TakeNumber();
        cut.TakeText();
        cut.TakeRecord();
        EXPECT_FALSE(cut.IsSound()) << size;
        EXPECT_EQ(cut.TakeNumber(), 0U);
    }
}

TEST(nmsstore, ChannelDeliversWholeMessagesAndClosesOnWhatIsNone)
{
    Ends ends;
    ends.near.Send(nmsStoreMessage::ready);
    ends.near.Send(nmsStoreMessage::gone, textPart("key"));
    ends.near.Flush();
    EXPECT_EQ(ends.received(), (std::vector<std::string>{"3 ", "10 key"}));

    // More than the socket holds: nobody waits, and it arrives in pieces.
    const std::string large = textPart(std::string(500000, 'x'));
    for (int i = 0; i < 4; ++i)
        ends.near.Send(nmsStoreMessage::gone, large);
    ends.near.Flush();
    EXPECT_TRUE(ends.near.IsBehind());
    std::size_t count = 0;
    for (int i = 0; i < 1000 && count < 4; ++i) {
        count += ends.received().size();
        ends.near.Flush();
    }
    EXPECT_EQ(count, 4U);
    EXPECT_FALSE(ends.near.IsBehind());

    for (const char* const bytes : {"\xff\xff\xff\xff\1", "\0\0\0\0\1", "\0\x20\0\0\1"}) {
        Ends broken;
        send(broken.near.GetHandle(), bytes, 5, MSG_NOSIGNAL);
        EXPECT_TRUE(broken.received().empty());
        EXPECT_FALSE(broken.far.IsOpen());
        broken.near.Send(nmsStoreMessage::ready);
        broken.near.Flush();
        EXPECT_FALSE(broken.near.IsOpen());
    }
}
