// What peers send, in any order and in any pieces, and what the ORB gets of it.

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "../../../../libtlx/lib/orb/MessageReader.h"

namespace Veltrane::Quillmark::Tlx {
namespace {

using Strings = std::vector<std::string>;

constexpr std::size_t MAX_MESSAGE = 1 << 20;

enum Type
{
    REQUEST = 0,
    REPLY = 1,
    CANCEL = 2,
    LOCATE = 3,
    CLOSE = 5,
    FRAGMENT = 7
};

std::string number(std::uint32_t value, bool isLittle)
{
    std::string bytes(4, '\0');
    for (int i = 0; i < 4; ++i)
        bytes[isLittle ? i : 3 - i] = static_cast<char>(value >> (8 * i));
    return bytes;
}

std::string header(Type type, std::size_t body, bool hasMore = false, char minor = 2,
                   bool isLittle = true)
{
    const char flags = static_cast<char>((isLittle ? 1 : 0) | (hasMore ? 2 : 0));
    return std::string("GIOP\1") + minor + flags + static_cast<char>(type) +
           number(static_cast<std::uint32_t>(body), isLittle);
}

/// A message or fragment of GIOP 1.2 with the id and so many bytes after it.
std::string piece(Type type, std::uint32_t id, bool hasMore = false, std::size_t bytes = 8,
                  bool isLittle = true)
{
    return header(type, 4 + bytes, hasMore, 2, isLittle) + number(id, isLittle) +
           std::string(bytes, static_cast<char>('a' + id));
}

struct MessageReaderTest : testing::Test
{
    MessageReader reader{MAX_MESSAGE};

    void add(const std::string& bytes) { reader.add(bytes.data(), bytes.size()); }
    /// What is left of the message that is handed out now.
    std::string rest(std::size_t atOnce = 1000)
    {
        std::string all;
        std::string part(atOnce, '\0');
        while (const std::size_t count = reader.take(part.data(), part.size()))
            all.append(part, 0, count);
        return all;
    }
    /// All messages that are ready.
    Strings messages(std::size_t atOnce = 1000)
    {
        Strings all;
        while (reader.nextMessage())
            all.push_back(rest(atOnce));
        return all;
    }
};

TEST_F(MessageReaderTest, AMessageIsReadyWhenItsLastByteIsThere)
{
    for (const bool isLittle : {true, false}) {
        const std::string message = piece(REQUEST, 1, false, 8, isLittle);
        for (std::size_t i = 0; i < message.size(); ++i) {
            EXPECT_FALSE(reader.nextMessage()) << i;
            EXPECT_EQ(reader.oldestUnfinished() != 0, i > 0) << i;
            add(message.substr(i, 1));
        }
        EXPECT_EQ(reader.oldestUnfinished(), 0u);
        EXPECT_EQ(reader.keptBytes(), message.size());
        EXPECT_EQ(messages(), Strings{message});
        EXPECT_EQ(reader.keptBytes(), 0u);
        EXPECT_FALSE(reader.hasMessage());
    }
}

TEST_F(MessageReaderTest, HandsOutOneMessageAtATime)
{
    const std::string first = piece(REQUEST, 1);
    const std::string second = piece(LOCATE, 2);
    const std::string third = header(REQUEST, 5, false, 0) + "third";
    add(first + second + third + "GI");
    ASSERT_TRUE(reader.nextMessage());
    EXPECT_FALSE(reader.nextMessage()) << "the first one is not taken";
    EXPECT_EQ(rest(7), first);
    EXPECT_EQ(messages(), (Strings{second, third}));
    EXPECT_NE(reader.oldestUnfinished(), 0u);
}

TEST_F(MessageReaderTest, FragmentsComeTogether)
{
    const Strings pieces{piece(REQUEST, 1, true), piece(FRAGMENT, 1, true, 16),
                         piece(FRAGMENT, 1, false, 3)};
    add(pieces[0] + pieces[1]);
    EXPECT_FALSE(reader.nextMessage());
    EXPECT_NE(reader.oldestUnfinished(), 0u);
    add(pieces[2]);
    EXPECT_EQ(messages(), Strings{pieces[0] + pieces[1] + pieces[2]});
}

TEST_F(MessageReaderTest, FragmentsOfSeveralMessagesMayAlternate)
{
    const std::string a1 = piece(REQUEST, 1, true);
    const std::string a2 = piece(FRAGMENT, 1, true);
    const std::string a3 = piece(FRAGMENT, 1);
    const std::string b1 = piece(REQUEST, 2, true);
    const std::string b2 = piece(FRAGMENT, 2);
    const std::string whole = piece(REQUEST, 3);
    add(a1 + b1 + a2 + whole + b2 + a3);
    EXPECT_EQ(messages(), (Strings{whole, b1 + b2, a1 + a2 + a3}));
}

TEST_F(MessageReaderTest, FragmentsOfGiop11HaveNoId)
{
    const std::string first = header(REQUEST, 4, true, 1) + "1111";
    const std::string last = header(FRAGMENT, 2, false, 1) + "22";
    add(first);
    add(last);
    EXPECT_EQ(messages(), Strings{first + last});
    add(first + first);
    EXPECT_EQ(messages(), Strings{});
    EXPECT_STREQ(reader.failure(), "it began a message with the id of an unfinished one");
}

TEST_F(MessageReaderTest, AnUnfinishedIdIsNotUsedAgain)
{
    add(piece(REQUEST, 1, true) + piece(REQUEST, 1));
    EXPECT_FALSE(reader.nextMessage());
    EXPECT_STREQ(reader.failure(), "it began a message with the id of an unfinished one");
}

TEST_F(MessageReaderTest, SoManyMessagesMayBeUnfinished)
{
    for (std::size_t i = 0; i < MOST_UNFINISHED_MESSAGES; ++i)
        add(piece(REQUEST, static_cast<std::uint32_t>(i), true));
    EXPECT_EQ(reader.failure(), nullptr);
    add(piece(FRAGMENT, 0));
    EXPECT_EQ(messages().size(), 1u);
    add(piece(REQUEST, 100, true));
    EXPECT_EQ(reader.failure(), nullptr);
    add(piece(REQUEST, 101, true));
    EXPECT_STREQ(reader.failure(), "too many of its messages are unfinished");
}

TEST_F(MessageReaderTest, CancelRequestsEndHere)
{
    const std::string request = piece(REQUEST, 2);
    add(piece(CANCEL, 7) + piece(REQUEST, 1, true, 3000) + piece(CANCEL, 1) + request +
        piece(FRAGMENT, 1));
    EXPECT_EQ(messages(), Strings{request});
    EXPECT_EQ(reader.keptBytes(), 0u);
    EXPECT_EQ(reader.failure(), nullptr);
    add(header(CANCEL, 4, false, 0) + number(3, true) + request);
    EXPECT_EQ(messages(), Strings{request});
}

TEST_F(MessageReaderTest, FragmentsOfNoMessageAreDropped)
{
    const std::string request = piece(REQUEST, 2);
    add(piece(FRAGMENT, 9, true, 100000) + request);
    EXPECT_EQ(messages(), Strings{request});
}

TEST_F(MessageReaderTest, AGoodbyeEndsTheConnectionQuietly)
{
    const std::string request = piece(REQUEST, 2);
    add(request + header(CLOSE, 0));
    EXPECT_EQ(messages(), Strings{request});
    EXPECT_STREQ(reader.failure(), "");
}

TEST_F(MessageReaderTest, TheOrbAnswersAMalformedMessageAndThenItEnds)
{
    for (const std::string& bad :
         {std::string("GET / HTTP/1.1\r\n"), std::string("GIOP\2\0\1\0\0\0\0\0", 12),
          header(REPLY, 4) + number(1, true), header(REQUEST, 0), header(REQUEST, 3) + "abc",
          header(FRAGMENT, 4, false, 0) + "1234", header(static_cast<Type>(8), 0)}) {
        MessageReader fresh(MAX_MESSAGE);
        const std::string request = piece(REQUEST, 1);
        const std::string all = request + bad;
        fresh.add(all.data(), all.size());
        std::string taken(1000, '\0');
        ASSERT_TRUE(fresh.nextMessage());
        EXPECT_EQ(fresh.take(taken.data(), taken.size()), request.size());
        ASSERT_TRUE(fresh.nextMessage()) << bad;
        EXPECT_EQ(fresh.failure(), nullptr);
        EXPECT_EQ(taken.substr(0, fresh.take(taken.data(), taken.size())), bad);
        EXPECT_FALSE(fresh.hasMessage());
        EXPECT_STREQ(fresh.failure(), "it sent a malformed message");
        fresh.add(request.data(), request.size());
        EXPECT_FALSE(fresh.nextMessage());
    }
}

TEST_F(MessageReaderTest, ALargeMessageIsReadyBeforeItsEnd)
{
    const std::string message = piece(REQUEST, 1, false, 3 * ARRIVED_BYTES);
    const std::string next = piece(REQUEST, 2);
    add(message.substr(0, ARRIVED_BYTES));
    EXPECT_FALSE(reader.nextMessage());
    add(message.substr(ARRIVED_BYTES, 1));
    ASSERT_TRUE(reader.nextMessage());
    EXPECT_EQ(reader.passing(), 0u) << "the first bytes come first";
    EXPECT_EQ(rest(), message.substr(0, ARRIVED_BYTES + 1));
    EXPECT_TRUE(reader.hasMessage());
    const std::size_t left = message.size() - ARRIVED_BYTES - 1;
    EXPECT_EQ(reader.passing(), left);
    reader.passed(1000);
    EXPECT_EQ(reader.passing(), left - 1000);
    add(message.substr(message.size() - left + 1000) + next);
    EXPECT_EQ(rest(), message.substr(message.size() - left + 1000));
    EXPECT_FALSE(reader.hasMessage());
    EXPECT_EQ(messages(), Strings{next});
}

TEST_F(MessageReaderTest, SmallUnfinishedMessagesAreNoLargeOne)
{
    const std::size_t each = ARRIVED_BYTES - 16; // with its header, all that a message may have
    for (std::size_t i = 0; i < MOST_UNFINISHED_MESSAGES; ++i)
        add(piece(REQUEST, static_cast<std::uint32_t>(i), true, each));
    EXPECT_FALSE(reader.nextMessage());
    EXPECT_EQ(reader.keptBytes(), MOST_UNFINISHED_MESSAGES * ARRIVED_BYTES);
    add(piece(FRAGMENT, 3));
    EXPECT_EQ(messages(), Strings{piece(REQUEST, 3, true, each) + piece(FRAGMENT, 3)});
    EXPECT_EQ(reader.failure(), nullptr);
    add(piece(FRAGMENT, 4, true));
    EXPECT_TRUE(reader.nextMessage()) << "more than ARRIVED_BYTES of it are there";
}

TEST_F(MessageReaderTest, EachUnfinishedMessageHasANumber)
{
    const std::string first = piece(REQUEST, 1, true);
    add(first.substr(0, 3));
    const std::uint64_t number = reader.oldestUnfinished();
    EXPECT_NE(number, 0u);
    add(first.substr(3));
    EXPECT_EQ(reader.oldestUnfinished(), number) << "its header is whole now";
    add(piece(REQUEST, 2, true) + piece(REQUEST, 3));
    EXPECT_EQ(messages(), Strings{piece(REQUEST, 3)});
    add(piece(FRAGMENT, 1, true));
    EXPECT_EQ(reader.oldestUnfinished(), number) << "it stays the oldest";
    add(piece(FRAGMENT, 1));
    EXPECT_EQ(messages().size(), 1u);
    EXPECT_GT(reader.oldestUnfinished(), number) << "the second one";
    add(piece(CANCEL, 2));
    EXPECT_EQ(reader.oldestUnfinished(), 0u);
}

TEST_F(MessageReaderTest, AllBytesOfALargeMessageMayPass)
{
    const std::string message = piece(REQUEST, 1, false, 2 * ARRIVED_BYTES);
    add(message.substr(0, ARRIVED_BYTES + 1));
    ASSERT_TRUE(reader.nextMessage());
    (void)rest();
    reader.passed(reader.passing());
    EXPECT_FALSE(reader.hasMessage());
    EXPECT_EQ(reader.passing(), 0u);
    add(piece(REQUEST, 1));
    EXPECT_EQ(messages(), Strings{piece(REQUEST, 1)});
}

TEST_F(MessageReaderTest, ALargeMessageMayComeInFragments)
{
    std::string all = piece(REQUEST, 1, true, ARRIVED_BYTES / 2);
    for (int i = 0; i < 5; ++i)
        all += piece(FRAGMENT, 1, i < 4, ARRIVED_BYTES / 2);
    const std::string other = piece(REQUEST, 2);
    add(all.substr(0, 2 * ARRIVED_BYTES));
    ASSERT_TRUE(reader.nextMessage());
    std::string got = rest();
    add(all.substr(2 * ARRIVED_BYTES) + other);
    got += rest();
    EXPECT_TRUE(got == all);
    EXPECT_FALSE(reader.hasMessage());
    EXPECT_EQ(messages(), Strings{other});
}

TEST_F(MessageReaderTest, SmallMessagesBesideALargeOneWaitForItsEnd)
{
    const std::string start = piece(REQUEST, 1, true, ARRIVED_BYTES);
    const std::string end = piece(FRAGMENT, 1);
    const std::string other = piece(REQUEST, 2);
    add(start);
    ASSERT_TRUE(reader.nextMessage());
    (void)rest();
    add(other + other + end);
    EXPECT_EQ(rest(), end);
    EXPECT_EQ(messages(), (Strings{other, other}));
}

TEST_F(MessageReaderTest, LargeMessagesMayComeInTurns)
{
    Strings sent(3);
    Strings got;
    const auto takeAll = [&] {
        for (;;) {
            if (!reader.hasMessage()) {
                if (!reader.nextMessage())
                    return;
                got.emplace_back();
            }
            got.back() += rest();
            if (reader.hasMessage())
                return;
        }
    };
    constexpr int PIECES = 12;
    std::size_t most = 0;
    for (int i = 0; i < PIECES; ++i) {
        for (std::uint32_t id = 0; id < sent.size(); ++id) {
            const std::string next =
                piece(i == 0 ? REQUEST : FRAGMENT, id, i + 1 < PIECES, 16 + ARRIVED_BYTES / 4);
            sent[id] += next;
            add(next);
            takeAll();
            most = std::max(most, reader.waitingBytes());
        }
    }
    EXPECT_EQ(reader.failure(), nullptr);
    EXPECT_TRUE(got == sent);
    EXPECT_GT(most, ARRIVED_BYTES);
    EXPECT_EQ(reader.keptBytes(), 0u);
}

TEST_F(MessageReaderTest, TheMessagesBesideALargeOneHaveALimitTogether)
{
    add(piece(REQUEST, 1, true, ARRIVED_BYTES));
    ASSERT_TRUE(reader.nextMessage());
    (void)rest();
    const std::string first = piece(REQUEST, 2, true, 8);
    add(first);
    std::size_t left = MAX_MESSAGE - first.size();
    for (std::uint32_t id = 3; left > 0; ++id) {
        const std::string other = piece(REQUEST, id, false, std::min<std::size_t>(left, 8192) - 16);
        add(other);
        left -= other.size();
    }
    EXPECT_EQ(reader.failure(), nullptr);
    EXPECT_EQ(reader.waitingBytes(), MAX_MESSAGE);
    add(piece(FRAGMENT, 2));
    EXPECT_STREQ(reader.failure(),
                 "the messages beside a large one are longer than MAX_MESSAGE_BYTES together");
}

TEST_F(MessageReaderTest, AThousandMessagesMayComeBesideALargeOne)
{
    add(piece(REQUEST, 1, true, ARRIVED_BYTES));
    ASSERT_TRUE(reader.nextMessage());
    (void)rest();
    for (std::size_t i = 0; i < MOST_MESSAGES_BEHIND; ++i)
        add(piece(REQUEST, 2));
    EXPECT_EQ(reader.failure(), nullptr);
    add(piece(REQUEST, 2));
    EXPECT_STREQ(reader.failure(), "too many messages arrived beside a large one");
}

TEST_F(MessageReaderTest, FragmentsTogetherMayBeAsLongAsAMessage)
{
    const auto send = [](MessageReader& to, std::size_t bytes) {
        std::size_t sent = 0;
        while (sent < bytes && !to.failure()) {
            const std::size_t size = std::min<std::size_t>(bytes - sent, 65536);
            const std::string next = piece(sent == 0 ? REQUEST : FRAGMENT, 1, true, size - 16);
            to.add(next.data(), next.size());
            sent += size;
            std::string taken(2 * size, '\0');
            (void)to.nextMessage();
            while (to.take(taken.data(), taken.size()) > 0) {
            }
        }
    };
    send(reader, MAX_MESSAGE);
    EXPECT_EQ(reader.failure(), nullptr);
    MessageReader longer(MAX_MESSAGE);
    send(longer, MAX_MESSAGE + 16);
    EXPECT_STREQ(longer.failure(),
                 "the fragments of a message are longer than MAX_MESSAGE_BYTES together");
}

TEST_F(MessageReaderTest, AnEmptyFragmentCountsAsASmallOne)
{
    add(piece(REQUEST, 1, true, ARRIVED_BYTES));
    ASSERT_TRUE(reader.nextMessage());
    (void)rest();
    std::size_t fragments = 0;
    while (!reader.failure() && fragments < MAX_MESSAGE) {
        add(header(FRAGMENT, 4, true) + number(1, true));
        (void)rest();
        ++fragments;
    }
    EXPECT_EQ(fragments, (MAX_MESSAGE - ARRIVED_BYTES - 16) / 1024 + 1);
}

TEST_F(MessageReaderTest, OnlyTheLastPieceMayEndInTheMiddleOfEightBytes)
{
    const std::string old =
        header(REQUEST, 5, true, 1) + "five." + header(FRAGMENT, 1, false, 1) + "!";
    add(old); // GIOP 1.1 allows it
    EXPECT_EQ(messages(), Strings{old});
    const std::string whole = piece(REQUEST, 1, false, 3);
    const std::string fragments = piece(REQUEST, 2, true) + piece(FRAGMENT, 2, false, 3);
    add(whole + fragments);
    EXPECT_EQ(messages(), (Strings{whole, fragments}));
    add(piece(REQUEST, 3, true, 9));
    EXPECT_FALSE(reader.nextMessage());
    EXPECT_STREQ(reader.failure(), "it cut a message in the middle of eight bytes");
}

TEST_F(MessageReaderTest, TheOrbRefusesAMessageThatIsTooLongInItself)
{
    const std::string message = piece(REQUEST, 1, false, MAX_MESSAGE);
    add(message.substr(0, ARRIVED_BYTES + 100));
    ASSERT_TRUE(reader.nextMessage());
    (void)rest();
    reader.passed(reader.passing());
    EXPECT_EQ(reader.failure(), nullptr);
    EXPECT_FALSE(reader.hasMessage());
}

/// Random conversations, cut at random places. The reader must hand out all bytes of all messages.
TEST_F(MessageReaderTest, AnyCutGivesTheSameMessages)
{
    std::mt19937 random(20);
    const auto upTo = [&random](std::size_t most) { return random() % (most + 1); };
    for (int round = 0; round < 300; ++round) {
        Strings sent;
        std::string all;
        for (std::uint32_t id = 0; id < 5; ++id) {
            std::string message;
            const std::size_t fragments = upTo(3);
            for (std::size_t i = 0; i <= fragments; ++i)
                message += piece(i == 0 ? REQUEST : FRAGMENT, id, i < fragments,
                                 8 * upTo(round % 3 == 0 ? 12000 : 20));
            sent.push_back(message);
            all += message;
            if (upTo(3) == 0)
                all += piece(CANCEL, 1000);
        }
        MessageReader cut(MAX_MESSAGE);
        Strings got;
        std::string part(1 + upTo(70000), '\0');
        for (std::size_t at = 0; at < all.size();) {
            if (const std::size_t passing = cut.passing()) {
                const std::size_t count = std::min({passing, all.size() - at, part.size()});
                got.back().append(all, at, count);
                cut.passed(count);
                at += count;
            } else {
                const std::size_t count = std::min(upTo(round % 2 ? 100 : 20000), all.size() - at);
                cut.add(all.data() + at, count);
                at += count;
            }
            while (cut.hasMessage() || cut.nextMessage()) {
                const bool isNew = got.empty() || got.back().size() >= sent[got.size() - 1].size();
                if (isNew)
                    got.emplace_back();
                const std::size_t count = cut.take(part.data(), part.size());
                if (count == 0)
                    break;
                got.back().append(part, 0, count);
            }
        }
        ASSERT_TRUE(got == sent) << "round " << round;
        ASSERT_EQ(cut.keptBytes(), 0u);
        ASSERT_EQ(cut.failure(), nullptr);
    }
}

/// Whatever comes, the reader keeps little more than what was added and not taken.
TEST_F(MessageReaderTest, RandomBytesDoNoHarm)
{
    constexpr std::size_t LONGEST = 70000;
    // The message that is handed out, and what was added last, stay until their last byte is used.
    constexpr std::size_t MORE = 4 * LONGEST;
    std::mt19937 random(7);
    for (int round = 0; round < 2000; ++round) {
        MessageReader other(MAX_MESSAGE);
        std::string part(100, '\0');
        std::size_t untaken = 0;
        for (int i = 0; i < 60; ++i) {
            std::string bytes = piece(static_cast<Type>(random() % 9), random() % 3, random() % 2,
                                      random() % 3 ? random() % 64 : random() % LONGEST);
            if (random() % 20 == 0)
                bytes[random() % bytes.size()] = static_cast<char>(random());
            if (random() % 20 == 0)
                bytes.resize(random() % bytes.size());
            other.add(bytes.data(), bytes.size());
            untaken += bytes.size();
            if (random() % 2)
                (void)other.nextMessage();
            for (int reads = 0; other.hasMessage() && reads < 1000; ++reads) {
                const std::size_t count = other.take(part.data(), part.size());
                ASSERT_LE(count, untaken);
                untaken -= count;
                if (count == 0) {
                    other.passed(std::min<std::size_t>(other.passing(), 50));
                    break;
                }
            }
            ASSERT_LE(other.keptBytes(), untaken + MORE);
        }
    }
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
