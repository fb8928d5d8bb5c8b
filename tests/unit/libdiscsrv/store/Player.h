#pragma once
// The work on a store in a crash play, and the notes about it.

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "PlayedFileSystem.h"
#include "StampedRecord.h"

namespace QmTest {

/// A note that begins with this word has what must not be.
constexpr const char* COMPLAINT = "complaint:";

/// Does the work of a sequence and notes which puts begin and end. Any thread may use it.
class Player
{
  public:
    Player(PlayedFileSystem& files, std::string store) : m_files(files), m_store(std::move(store))
    {
    }

    /// Writes and persists a record.
    Disc::DiscoveryStatus put(const Stamped& stamped);
    /// Puts a record of the highest priority. Complains if a reader does not find it.
    void putAgain(const std::string& subject, long number, const std::string& when);
    /// Persists a record that is written.
    Disc::DiscoveryStatus persist(StampedPut& put, const Stamped& stamped);
    /// Opens the store, as a start does.
    void start();
    void note(const std::string& text) { m_files.note(text); }
    void complain(const std::string& text) { note(COMPLAINT + (" " + text)); }
    /// Complains if this process has locks, or another number of descriptors than before.
    void expectNothingOpen(std::size_t descriptors, const std::string& when);
    PlayedFileSystem& files() const { return m_files; }
    const std::string& store() const { return m_store; }

  private:
    PlayedFileSystem& m_files;
    const std::string m_store;
};

/// Besides its own records, each sequence's store has one that the work does not touch.
struct Sequence
{
    std::vector<Stamped> stored{};
    std::function<void(Player&)> work{};
    std::set<std::string> subjects{"cl5"}; ///< the work changes these
    std::vector<std::string> leftOver{};   ///< temporary payloads of an earlier crash
    bool hasExpired = false;               ///< stored records with a time to live have expired
    bool hasStore = true;                  ///< otherwise there is no directory yet
    bool starts = false;                   ///< the work opens the store
};

/// The record that no work touches.
extern const Stamped OTHER;

/// A defect that a play must find.
using Defect = std::function<void(PlayedFileSystem&)>;

std::size_t temporariesIn(const std::string& directory);
/// Counts the open descriptors without the directory, which the store keeps open after a listing.
std::size_t openDescriptors(const std::string& store);

} // namespace QmTest
