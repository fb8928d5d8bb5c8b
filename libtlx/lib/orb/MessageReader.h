#pragma once
// Cuts the bytes of one connection into messages, before the ORB sees any of them.
//
// The ORB reads a message while it arrives, and trusts the peer to send fragments in a sensible
// order. So a peer could hold a thread, or make the ORB use freed memory. This reader hands out one
// message after the other. A message is ready when it is whole, with all its fragments. A large one
// is ready earlier: see ARRIVED_BYTES.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace Veltrane::Quillmark::Tlx {

/// When more than this of a message has arrived, it is ready before its end. The reader does not
/// keep its rest.
constexpr std::size_t ARRIVED_BYTES = 65536;
/// How many messages of one connection may be unfinished at the same time, with the one that
/// arrives now. GIOP 1.2 allows a peer to send the fragments of several messages in turns.
constexpr std::size_t MOST_UNFINISHED_MESSAGES = 16;
/// How many whole messages may arrive between the pieces of a large one.
constexpr std::size_t MOST_MESSAGES_BEHIND = 1000;

/// One thread at a time.
///
/// The ORB answers a malformed message, so the reader hands it out, as the last one. While a large
/// message is handed out, the reader fails at once instead. The reader drops CancelRequest
/// messages: this service does not cancel a request that it serves, and the ORB leaks memory for
/// them. It fails if the peer cancels the large request that it is sending.
class MessageReader
{
  public:
    /// @param maxMessageBytes the limit for one message with all its fragments.
    explicit MessageReader(std::size_t maxMessageBytes) : m_maxMessageBytes(maxMessageBytes) {}

    /// Takes the bytes that have arrived next.
    void add(const char* bytes, std::size_t size);

    /// Begins to hand out the next message. Returns false if none is ready. Does nothing while a
    /// message is handed out.
    bool nextMessage();
    /// Whether bytes of the message that is handed out now are left.
    bool hasMessage() const { return m_handsOut; }
    /// Moves the next bytes of this message into the buffer. Returns how many; 0 if they have not
    /// arrived.
    std::size_t take(void* buffer, std::size_t size);
    /// Call it after take has returned 0. Returns how many of the next bytes of the connection
    /// belong to this message: the caller may read so many itself, and then calls passed. After 0,
    /// the caller reads the next bytes and adds them.
    std::size_t passing() const;
    /// The caller has read so many bytes itself.
    void passed(std::size_t bytes);

    /// The number of the oldest message that has begun and is not ready, or 0. Each message has a
    /// number of its own.
    std::uint64_t oldestUnfinished() const;
    /// How many bytes the reader keeps.
    std::size_t keptBytes() const { return waitingBytes() + m_out.size(); }
    /// How many bytes the reader keeps behind the message that is handed out.
    std::size_t waitingBytes() const { return m_in.size() + m_pendingBytes; }
    /// Why the connection must end, or null. Empty if the peer said goodbye.
    const char* failure() const { return m_failure; }

  private:
    struct Message
    {
        std::uint64_t number = 0; ///< of its first piece
        bool hasId = false;       ///< GIOP 1.2 repeats the id in each fragment
        std::uint32_t id = 0;
        std::size_t size = 0; ///< of all its pieces until now
        std::string bytes;    ///< those that have arrived
    };
    /// Where the piece that arrives now goes.
    enum class Goal
    {
        MESSAGE, ///< to the last unfinished message
        OPEN,    ///< to the message that is ready before its end
        NOWHERE  ///< it is thrown away
    };
    struct Header;

    void parse();
    bool beginPiece();
    void beginMessage(const Header& header);
    void beginFragment(const Header& header);
    void cancel(const Header& header);
    void movePiece();
    void skip(std::size_t count);
    void endPiece();
    void openLast();
    std::vector<Message>::iterator find(const Header& header);
    bool isOpen(const Header& header) const;
    void handOutLast();
    void fail(const char* why) { m_failure = why; }

    std::size_t m_maxMessageBytes;
    const char* m_failure = nullptr;
    bool m_isMalformed = false;
    std::string m_in;       ///< arrived
    std::size_t m_read = 0; ///< how many bytes of m_in have been looked at
    // The piece that arrives now: a message, or a fragment of one, with its header.
    std::uint64_t m_pieces = 0; ///< its number
    std::size_t m_left = 0;     ///< bytes of it that were not moved; 0 between two pieces
    bool m_isLast = true;       ///< no fragment of the same message follows
    Goal m_goal = Goal::NOWHERE;
    std::vector<Message> m_unfinished; ///< the last one gets the piece
    std::deque<std::string> m_ready;   ///< the first bytes of an open message, or whole messages
    std::size_t m_pendingBytes = 0;    ///< the bytes in m_unfinished and m_ready
    bool m_isOpen = false;             ///< a message was handed out, or is ready, before its end
    Message m_open;                    ///< this message; its bytes are in m_ready or handed out
    bool m_handsOut = false;
    std::string m_out; ///< of the message that is handed out now
    std::size_t m_taken = 0;
};

} // namespace Veltrane::Quillmark::Tlx
