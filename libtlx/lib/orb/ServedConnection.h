#pragma once
// One connection from another host, as the ORB's threads and the watching thread see it.

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include <tlx/Corba.h>
#include <tlx/FileDescriptor.h>

#include <omniORB4/giopEndpoint.h>

#include "ByteStream.h"
#include "ConnectionTable.h"
#include "MessageReader.h"
#include "RequestQueue.h"
#include "Watcher.h"

namespace Veltrane::Quillmark::Tlx {

class TlsContext;

/// What the connections of an endpoint share.
struct ServerShared
{
    std::shared_ptr<ConnectionTable> connections;
    std::shared_ptr<RequestQueue> requests;
    std::size_t maxMessageBytes = 0;
    std::shared_ptr<TlsContext> tls; ///< null without TLS
    bool requiresTls = false;
};

/// The watching thread reads until a request is ready. Then the connection gets its turn, now or
/// later, and a thread of the ORB serves the request. This thread waits for the next request for a
/// moment. Then the watching thread is next again.
class ServedConnection final : public omni::giopConnection, public WatchedConnection
{
  public:
    ServedConnection(FileDescriptor socket, Watcher::Key key, const ServerShared& shared,
                     std::shared_ptr<Watcher> watcher);
    ~ServedConnection() override;

    /// Takes the connection into the table. Returns false if there is no place for it.
    [[nodiscard]] bool admit();

    /// The watching thread has a report about this connection. Returns whether the ORB must be
    /// notified, so that one of its threads serves the connection.
    [[nodiscard]] bool handle(const Watcher::Report& report);

    // For the ORB's threads.
    int Send(void* buffer, std::size_t size, const omni_time_t& deadline) override;
    int Recv(void* buffer, std::size_t size, const omni_time_t& deadline) override;
    void Shutdown() override;
    const char* myaddress() override { return m_myAddress.c_str(); }
    const char* peeraddress() override { return m_peerAddress.c_str(); }
    const char* peeridentity() override;
    void setSelectable(int now, CORBA::Boolean dataInBuffer) override;
    void clearSelectable() override;
    CORBA::Boolean isSelectable() override { return true; }
    CORBA::Boolean Peek() override;

    void breakOff() override;
    void discard() override;

  private:
    enum class Stage
    {
        SERVED,  ///< a thread of the ORB serves it, or ends it
        WATCHED, ///< the watching thread reads the next request
        WAITING, ///< a request is ready, and waits for its turn
    };
    enum class Found
    {
        REQUEST,
        NOTHING,
        END
    };

    // With m_mutex.
    bool hasStream();
    Found receive();
    Found lookForRequest();
    void lookForName();
    Found end(const std::string& why);
    bool take(Found found);
    void setStage(Stage stage);
    void watch();
    void noteUnfinished();
    int receivePart(void* buffer, std::size_t size, ByteStream::State& need);
    // With or without m_mutex.
    void endTurn();
    // Without m_mutex.
    void noteKept();
    std::chrono::milliseconds waitLeft() const;
    void noteWaited(Clock::time_point begin);
    bool waitFor(ByteStream::State need, const omni_time_t& deadline, const char* what);

    const FileDescriptor m_socket;
    const Watcher::Key m_key;
    const ServerShared m_shared;
    const std::shared_ptr<Watcher> m_watcher;
    std::string m_myAddress;
    std::string m_peerAddress;
    std::atomic<bool> m_isBroken{false};
    std::atomic<Clock::rep> m_waitedInStop{0}; ///< all waits together since the stop began

    /// For all below. Its holder does not wait for the network. The thread that serves the
    /// connection may use m_stream and m_need without it.
    std::mutex m_mutex;
    Stage m_stage = Stage::SERVED;
    std::unique_ptr<ByteStream> m_stream; ///< null before the first byte; then it stays
    ByteStream::State m_need = ByteStream::State::NEEDS_INPUT;
    MessageReader m_reader;
    bool m_inHandshake = false; ///< of TLS
    std::string m_peerName;
};

} // namespace Veltrane::Quillmark::Tlx
