#pragma once
// The iterators and writers that clients hold.
//
// One registry owns them all. An object is registered before it is activated, so no request can
// reach an object that the registry does not know. Whatever fails on the way to the client removes
// the object again. Objects are activated in a POA of their own, under random ids of 128 bits: who
// knows one key cannot guess another.
//
// The registry bounds what clients may hold:
//
//     iterators   MAX_ITERATORS in all, MAX_ITERATORS_PER_PEER of one peer. Beyond a bound the
//                 longest idle iterator goes: of that peer, or of the peer with the most.
//     writers     MAX_WRITERS_PER_PEER of one peer, and a share of the free names (see
//                 mayOpenWriter). Beyond a bound a peer gets none: a writer lives until its client
//                 closes it, or leaves it alone for WRITER_IDLE_LIMIT.
//     memory      MAX_PULLED_BYTES (PulledBytes.h). Beyond it the longest idle iterator goes that
//                 holds a pulled collection or a fetched list, of the peer that holds the most
//                 bytes.
//
// An object in which a request runs never goes. Requests of this process itself have no peer, and
// no share.

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include <tlx/Corba.h>
#include <tlx/Evictor.h>
#include <tlx/Orb.h>
#include <tlx/Servant.h>

#include "DiscDB.h"
#include "OpenServant.h"
#include "OpenWriters.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

enum class OpenKind
{
    DiscoveryIterator,
    CollectionIterator,
    Writer
};

struct OpenLimits
{
    std::size_t iterators = 0;
    std::size_t iteratorsOfPeer = 0;
    std::size_t writersOfPeer = 0;
    std::chrono::seconds writerIdle{0};        ///< 0: never
    std::size_t writers = MAX_TEMPORARY_NAMES; ///< a store has names for so many

    /// The limits in the host configuration.
    static OpenLimits configured();
};

/// Whether a peer with so many writers may open one more, while `open` writers of all are open.
///
/// The bound of a peer falls with the number of free names. So the peers that have all that they
/// may have never take all names: each further one takes a part of the rest. One that has few
/// writers gets its next one at once. A peer alone reaches exactly limits.writersOfPeer. With a
/// quarter of the names as its bound, each greedy peer leaves three quarters of what it found.
bool mayOpenWriter(std::size_t held, std::size_t open, const OpenLimits& limits);

/// The numbers of open writers that are worth a warning when they are reached.
constexpr std::size_t MANY_WRITERS[] = {100, 500};

/// Any thread may call all operations, except start and stop. No lock is held while an object is
/// activated, deactivated or destroyed.
class OpenObjects
{
  public:
    /// An object on its way to a client. Unless keep is called, the destructor removes the object
    /// from the registry and from the POA.
    class [[nodiscard]] Admission
    {
      public:
        Admission() = default;
        Admission(Admission&& other) noexcept;
        Admission& operator=(Admission&&) = delete;
        ~Admission();

        /// False if a bound, or a failure, refused the object. The registry has logged why.
        bool isAdmitted() const { return !m_key.empty(); }
        /// Activates the object and returns its reference, which the caller releases.
        /// @throws CORBA::SystemException
        CORBA::Object_ptr activate();
        /// The object is the client's now. From here on it may be given up while it is idle.
        void keep();

      private:
        friend class OpenObjects;
        Admission(OpenObjects& registry, std::string key, OpenKind kind,
                  PortableServer::Servant servant);
        OpenObjects* m_registry = nullptr;
        std::string m_key;
        OpenKind m_kind = OpenKind::Writer;
        PortableServer::Servant m_servant = nullptr; ///< the registry owns it
    };

    OpenObjects();
    ~OpenObjects();
    OpenObjects(const OpenObjects&) = delete;
    OpenObjects& operator=(const OpenObjects&) = delete;

    /// Makes the POA below parent, with the parent's manager, and lets objects in.
    /// @param clock for tests: with a clock there is no thread that gives up idle writers.
    /// @throws CORBA::Exception, and OrbError when the system has no thread.
    void start(PortableServer::POA_ptr parent, Orb& orb, const OpenLimits& limits,
               Evictor::Clock clock = {});

    /// Destroys the POA, which waits for the requests in progress. Then drops every object, when no
    /// request can reach one any more. Lets no more in. Does nothing before start.
    void stop();

    /// Registers a servant for the peer of this thread's request, and makes that peer its owner.
    /// The caller keeps a reference to the servant until the admission is gone.
    /// @throws CORBA::OBJ_ADAPTER before start and after stop.
    template <class Servant>
    Admission admit(OpenKind kind, Servant& servant)
    {
        return admit(kind, servant, servant, servant.activity());
    }

    /// The operation that ends an object calls this first. Returns false if the object was given up
    /// already. Otherwise nothing but end removes it.
    bool beginEnd(const PortableServer::ObjectId& id);
    /// Removes an object from the registry and from the POA. Does nothing for an unknown one.
    void end(const PortableServer::ObjectId& id);

    /// Gives up the writers that were idle for too long, and returns their number. The thread and
    /// tests call it.
    std::size_t giveUpIdleWriters();

    /// Gives up the longest idle iterator with bytes in memory. Returns false if none is idle.
    bool giveUpPulled();

    /// The writers by peer, those with the most first.
    OpenWriters writers(std::size_t mostPeers) const;

    std::size_t iteratorsOpen() const;
    std::size_t writersOpen() const;

    /// The POA of the objects; nil before start and after stop.
    PortableServer::POA_var poa() const;

    /// For tests: fills a buffer with random bytes in place of the system. Null restores it.
    static void setRandom(bool (*fill)(void* buffer, std::size_t size));

  private:
    struct Entry;
    struct Peer;
    struct State;

    Admission admit(OpenKind kind, OpenServant& servant, PortableServer::ServantBase& owned,
                    const std::shared_ptr<ServantActivity>& activity);
    void remove(const std::string& key);
    void keep(const std::string& key);
    void evicted(const PortableServer::ObjectId& id);
    void giveUpWriter(const PortableServer::ObjectId& id);
    void discard(const std::shared_ptr<Entry>& entry);

    const std::unique_ptr<State> m_state;
};

/// The registry of this process.
OpenObjects& openObjects();

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
