#pragma once
// Waits for many sockets at a time.

#include <cstdint>
#include <mutex>
#include <vector>

#include <tlx/FileDescriptor.h>

namespace Veltrane::Quillmark::Tlx {

/// One thread waits. Any thread may call the other operations. Keys name sockets. The owner gives
/// each socket a key of its own, never 0, and uses none twice. So a report about a closed socket
/// leads to nothing.
class Watcher
{
  public:
    using Key = std::uint64_t;

    /// @throws std::system_error if the system has no more descriptors.
    Watcher();

    enum class Event
    {
        INPUT,
        OUTPUT
    };
    /// Reports the socket once, when it is ready or has ended. Closing the socket ends the watch.
    void watch(int socket, Key key, Event event);
    /// Reports the key as soon as possible.
    void post(Key key);

    struct Report
    {
        Key key;
        bool isPosted; ///< by post
    };
    /// Waits until there is something to report.
    std::vector<Report> wait();

  private:
    const FileDescriptor m_set;
    const FileDescriptor m_bell; ///< can be read when something was posted
    std::mutex m_mutex;          ///< for m_posted; a leaf
    std::vector<Key> m_posted;
};

} // namespace Veltrane::Quillmark::Tlx
