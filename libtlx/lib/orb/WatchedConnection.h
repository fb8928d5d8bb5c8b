#pragma once
// What a connection from another host waits for.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <string>

namespace Veltrane::Quillmark::Tlx {

class ConnectionTable;

/// A message or a reply that moves fewer bytes than this while it waits makes no progress. So a
/// peer that sends a byte now and then counts as stalled.
constexpr std::size_t PROGRESS_BYTES = 16384;

/// One connection from another host, as a ConnectionTable sees it from admit to remove. The threads
/// that read and serve it note here what they wait for.
class WatchedConnection
{
  public:
    using Clock = std::chrono::steady_clock;

    /// @param address the peer's numeric address, without the port.
    explicit WatchedConnection(std::string address);
    virtual ~WatchedConnection() = default;
    WatchedConnection(const WatchedConnection&) = delete;
    WatchedConnection& operator=(const WatchedConnection&) = delete;

    const std::string& address() const { return m_address; }
    /// As peerOfAddress.
    const std::string& peer() const { return m_peer; }

    /// Ends the connection, so that a thread which waits in it returns at once. Any thread, any
    /// number of times. It takes no lock and does not wait.
    virtual void breakOff() = 0;
    /// The same, and gives up the bytes that the connection keeps. It takes locks.
    virtual void discard() = 0;

    /// A thread waits for bytes of a message, or for room for a reply, while this object lives. The
    /// stall of the message or the reply begins with its first wait. It ends with noteMoved or
    /// noteWhole.
    class Wait
    {
      public:
        explicit Wait(WatchedConnection& connection);
        ~Wait();
        Wait(const Wait&) = delete;
        Wait& operator=(const Wait&) = delete;

      private:
        WatchedConnection& m_connection;
    };

    // noteIncomplete, noteNothing and noteArrived: one thread at a time.

    /// Something has begun to arrive, and no thread waits for the rest. Starts its time limit, or
    /// continues it.
    /// @param what a number for it. While the number is the same, the time limit is the same, also
    ///        if other messages arrive in between.
    /// @param stall says what happened if the rest does not come in time; it lives for ever.
    void noteIncomplete(std::uint64_t what, const char* stall);
    /// Nothing has begun to arrive.
    void noteNothing();
    /// A handshake or a message has arrived. While a thread serves the message, the time limit of
    /// an incomplete one stands still, because nobody reads its rest.
    void noteArrived();
    /// The thread that waits has moved so many bytes. After PROGRESS_BYTES the stall is over.
    void noteMoved(std::size_t bytes);
    /// The message has arrived, or the reply has gone.
    void noteWhole() { m_waitsSince = 0; }
    /// Whether a thread serves a request of this connection. Such a connection is not idle.
    void noteServed(bool isServed) { m_isServed = isServed; }

  private:
    friend class ConnectionTable;

    const std::string m_address;
    const std::string m_peer;
    std::atomic<std::size_t> m_keptBytes{0};
    // Moments, as ticks of Clock; 0 means never.
    std::atomic<Clock::rep> m_waitsSince{0};
    std::atomic<Clock::rep> m_incompleteSince{0};
    std::atomic<Clock::rep> m_lastUse;
    std::uint64_t m_incomplete = 0;       ///< the number of what has begun
    Clock::rep m_incompleteFor = 0;       ///< how long it was incomplete before noteArrived
    std::atomic<const char*> m_stall{""}; ///< as noteIncomplete says
    std::atomic<std::size_t> m_moved{0};  ///< since m_waitsSince
    std::atomic<bool> m_isServed{false};
    std::atomic<unsigned> m_waits{0}; ///< how many Wait objects live
    // With the table's mutex.
    bool m_brokenOff = false;
    unsigned m_pins = 0; ///< calls of ConnectionTable::with that use it now
    std::list<WatchedConnection*>::iterator m_place;
};

} // namespace Veltrane::Quillmark::Tlx
