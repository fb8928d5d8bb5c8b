#include "MessageReader.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "GiopHeader.h"

namespace Veltrane::Quillmark::Tlx {

using namespace Giop;

namespace {

constexpr std::size_t ID_BYTES = 4;
/// In GIOP 1.2, all pieces of a message except the last one have a multiple of so many bytes.
constexpr std::size_t ALIGNMENT = 8;
/// A smaller fragment counts like one of this size: each costs the ORB time.
constexpr std::size_t MIN_FRAGMENT_COST = 1024;

std::uint32_t numberAt(const char* bytes, bool isLittle)
{
    std::uint32_t number = 0;
    for (int i = 0; i < 4; ++i)
        number |= std::uint32_t{static_cast<unsigned char>(bytes[i])}
                  << (isLittle ? 8 * i : 24 - 8 * i);
    return number;
}

} // namespace

struct MessageReader::Header
{
    Type type;
    bool isLast;
    bool hasId;
    std::uint32_t id;
    std::size_t size; ///< with the header

    enum class Kind
    {
        WHOLE,
        PARTIAL,
        GOODBYE,
        MALFORMED
    };

    /// Reads a header, and the id after it if there is one. A header that no client sends counts as
    /// malformed.
    Kind read(std::string_view bytes)
    {
        if (bytes.size() < HEADER_BYTES)
            return Kind::PARTIAL;
        const auto at = [&bytes](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
        const unsigned char minor = at(5);
        const unsigned char flags = at(FLAGS_AT);
        if (bytes.compare(0, 4, "GIOP") != 0 || at(4) != 1 || minor > 2)
            return Kind::MALFORMED;
        type = static_cast<Type>(at(TYPE_AT));
        const bool isLittle = flags & LITTLE_ENDIAN_FLAG;
        const std::size_t body = numberAt(&bytes[SIZE_AT], isLittle);
        size = HEADER_BYTES + body;
        isLast = minor == 0 || !(flags & MORE_FRAGMENTS_FLAG);
        if (type == CLOSE_CONNECTION)
            return Kind::GOODBYE;
        if (type != REQUEST && type != CANCEL_REQUEST && type != LOCATE_REQUEST &&
            !(type == FRAGMENT && minor > 0))
            return Kind::MALFORMED;
        hasId = minor == 2 || type == CANCEL_REQUEST;
        if (!hasId)
            return Kind::WHOLE;
        if (bytes.size() < HEADER_BYTES + std::min(body, ID_BYTES))
            return Kind::PARTIAL;
        if (body < ID_BYTES)
            return Kind::MALFORMED;
        id = numberAt(&bytes[HEADER_BYTES], isLittle);
        return Kind::WHOLE;
    }
};

void MessageReader::add(const char* bytes, std::size_t size)
{
    m_in.erase(0, m_read);
    m_read = 0;
    m_in.append(bytes, size);
    parse();
}

/// Looks no further than the next message that is ready: what comes behind it waits in m_in.
void MessageReader::parse()
{
    while (!m_failure && !m_isMalformed) {
        if (m_handsOut ? !m_isOpen || !m_out.empty() : !m_ready.empty())
            return;
        if (m_left == 0 && !beginPiece())
            return;
        movePiece();
        if (m_left > 0)
            return;
        endPiece();
    }
}

bool MessageReader::beginPiece()
{
    Header header{};
    const Header::Kind kind = header.read(std::string_view(m_in).substr(m_read));
    if (kind == Header::Kind::PARTIAL)
        return false;
    if (kind == Header::Kind::GOODBYE)
        fail("");
    if (kind == Header::Kind::MALFORMED)
        handOutLast();
    if (kind != Header::Kind::WHOLE)
        return false;
    ++m_pieces;
    m_left = header.size;
    m_isLast = header.isLast;
    m_goal = Goal::NOWHERE;
    if (!header.isLast && header.hasId && header.size % ALIGNMENT != 0)
        fail("it cut a message in the middle of eight bytes");
    else if (header.type == FRAGMENT)
        beginFragment(header);
    else if (header.type == CANCEL_REQUEST)
        cancel(header);
    else
        beginMessage(header);
    return !m_failure;
}

/// The ORB refuses a message that is too long in itself, with an exception for the caller.
void MessageReader::beginMessage(const Header& header)
{
    if (isOpen(header) || find(header) != m_unfinished.end())
        return fail("it began a message with the id of an unfinished one");
    if (m_unfinished.size() >= MOST_UNFINISHED_MESSAGES)
        return fail("too many of its messages are unfinished");
    m_unfinished.push_back({m_pieces, header.hasId, header.id, header.size, {}});
    m_goal = Goal::MESSAGE;
}

void MessageReader::beginFragment(const Header& header)
{
    Message* message = nullptr;
    if (isOpen(header)) {
        message = &m_open;
        m_goal = Goal::OPEN;
    } else if (const auto found = find(header); found != m_unfinished.end()) {
        std::rotate(found, found + 1, m_unfinished.end()); // the last one gets the piece
        message = &m_unfinished.back();
        m_goal = Goal::MESSAGE;
    } else {
        return; // of a message that the peer cancelled, or never began
    }
    message->size += std::max(header.size, MIN_FRAGMENT_COST);
    if (message->size > m_maxMessageBytes)
        fail("the fragments of a message are longer than MAX_MESSAGE_BYTES together");
}

void MessageReader::cancel(const Header& header)
{
    if (isOpen(header))
        return fail("it cancelled a large request that it was sending");
    const auto found = find(header);
    if (found == m_unfinished.end())
        return;
    m_pendingBytes -= found->bytes.size();
    m_unfinished.erase(found);
}

void MessageReader::movePiece()
{
    const std::size_t count = std::min(m_left, m_in.size() - m_read);
    if (m_goal == Goal::MESSAGE) {
        m_unfinished.back().bytes.append(m_in, m_read, count);
        m_pendingBytes += count;
    } else if (m_goal == Goal::OPEN) {
        m_out.append(m_in, m_read, count);
    }
    skip(count);
    m_left -= count;
    if (m_goal != Goal::MESSAGE)
        return;
    const bool isWhole = m_left == 0 && m_isLast;
    if (!m_isOpen && !isWhole && m_unfinished.back().bytes.size() > ARRIVED_BYTES)
        openLast();
    else if (m_isOpen && m_pendingBytes > m_maxMessageBytes)
        fail("the messages beside a large one are longer than MAX_MESSAGE_BYTES together");
}

/// These bytes of m_in have been looked at.
void MessageReader::skip(std::size_t count)
{
    m_read += count;
    if (m_read == m_in.size()) {
        m_in = std::string(); // its memory goes, too: many connections are idle
        m_read = 0;
    }
}

/// The message that arrives now becomes ready, although it is not whole.
void MessageReader::openLast()
{
    m_open = std::move(m_unfinished.back());
    m_unfinished.pop_back();
    m_ready.push_back(std::move(m_open.bytes));
    m_isOpen = true;
    m_goal = Goal::OPEN;
}

std::uint64_t MessageReader::oldestUnfinished() const
{
    if (m_unfinished.empty())
        return m_in.empty() ? 0 : m_pieces + 1; // a part of a header
    return std::min_element(
               m_unfinished.begin(), m_unfinished.end(),
               [](const Message& left, const Message& right) { return left.number < right.number; })
        ->number;
}

void MessageReader::endPiece()
{
    if (!m_isLast)
        return;
    if (m_goal == Goal::OPEN) {
        m_isOpen = false;
        m_handsOut = m_handsOut && !m_out.empty();
    } else if (m_goal == Goal::MESSAGE) {
        m_ready.push_back(std::move(m_unfinished.back().bytes));
        m_unfinished.pop_back();
        if (m_ready.size() > MOST_MESSAGES_BEHIND)
            fail("too many messages arrived beside a large one");
    }
}

std::vector<MessageReader::Message>::iterator MessageReader::find(const Header& header)
{
    return std::find_if(m_unfinished.begin(), m_unfinished.end(), [&header](const Message& each) {
        return each.hasId == header.hasId && each.id == header.id;
    });
}

bool MessageReader::isOpen(const Header& header) const
{
    return m_isOpen && m_open.hasId == header.hasId && m_open.id == header.id;
}

/// The ORB gets the malformed message, so that it answers the peer. Then the connection ends.
void MessageReader::handOutLast()
{
    // While the ORB reads a message, it would take what follows for a part of it.
    if (m_isOpen)
        return fail("it sent a malformed message between the pieces of a large one");
    m_isMalformed = true;
    m_unfinished.clear();
    m_ready.push_back(m_in.substr(m_read));
    m_pendingBytes = m_ready.back().size();
    skip(m_pendingBytes);
}

bool MessageReader::nextMessage()
{
    if (m_handsOut)
        return false;
    parse();
    if (m_failure || m_ready.empty())
        return false;
    m_out = std::move(m_ready.front());
    m_ready.pop_front();
    m_pendingBytes -= m_out.size();
    m_taken = 0;
    m_handsOut = true;
    return true;
}

std::size_t MessageReader::take(void* buffer, std::size_t size)
{
    if (m_handsOut && m_out.empty())
        parse();
    const std::size_t count = std::min(size, m_out.size() - m_taken);
    std::memcpy(buffer, m_out.data() + m_taken, count);
    m_taken += count;
    if (m_taken == m_out.size()) {
        m_out = std::string();
        m_taken = 0;
        m_handsOut = m_isOpen;
        if (m_isMalformed)
            fail("it sent a malformed message");
    }
    return count;
}

std::size_t MessageReader::passing() const
{
    const bool isNext = m_handsOut && m_isOpen && m_out.empty() && m_in.empty();
    return isNext && m_goal == Goal::OPEN ? m_left : 0;
}

void MessageReader::passed(std::size_t bytes)
{
    m_left -= bytes;
    if (m_left == 0 && bytes > 0)
        endPiece();
}

} // namespace Veltrane::Quillmark::Tlx
