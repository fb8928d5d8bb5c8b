#pragma once
// The memory of pulled collections, and of lists from other hosts.

#include <cstddef>
#include <functional>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Counts the bytes of one collection, or list, among those of all that pull explorers and other
/// hosts deliver, and that readers still hold. Their sum is at most MAX_PULLED_BYTES. One thread at
/// a time uses an object; any number of threads use objects of their own.
class PulledBytes
{
  public:
    /// Frees some bytes by giving up a collection that nobody uses now. Returns false if there is
    /// none.
    using MakeRoom = std::function<bool()>;

    PulledBytes() = default;
    ~PulledBytes() { release(); }
    PulledBytes(const PulledBytes&) = delete;
    PulledBytes& operator=(const PulledBytes&) = delete;

    /// Adds bytes of this collection. If the sum would be above most, it makes room first. Returns
    /// false, and adds nothing, if there is no room.
    [[nodiscard]] bool add(std::size_t bytes, std::size_t most);
    /// Subtracts all bytes of this collection.
    void release();
    std::size_t held() const { return m_held; }

    /// The bytes of all collections.
    static std::size_t sum();
    /// Sets what makes room, for the whole process. Null makes none. It is called on the thread
    /// that adds, without any lock.
    static void setMakeRoom(MakeRoom makeRoom);

  private:
    std::size_t m_held = 0;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
