#pragma once
// Which states of a record are right after a crash.

#include <map>
#include <set>
#include <string>

#include "DiskModel.h"
#include "DiskOperation.h"
#include "StampedRecord.h"

namespace QmTest {

/// The puts of one subject, from the notes of a player.
class PutHistory
{
  public:
    /// @param stored the record before the notes, null for none.
    /// @param hasExpired whether the stored record has expired.
    PutHistory(const std::string& subject, const Stamped* stored, bool hasExpired,
               const DiskOperations& operations);

    /// True if a crash may leave this state, as stampsOf returns it. An acknowledged put is found
    /// whole until another put replaces it. An open put may be found whole, half done, or not.
    bool allows(const std::string& state) const;

  private:
    /// True if a reader may find both parts of this put: it is open, or it is acknowledged and no
    /// acknowledged put began later.
    bool mayBeWhole(long number) const;
    bool isOpen(long number) const { return m_open.contains(number); }

    std::map<long, std::size_t> m_begun;        ///< the index of the note
    std::map<long, std::size_t> m_acknowledged; ///< without expired ones
    std::set<long> m_open;                      ///< in flight or failed
    long m_expired = 0;
};

/// How far the last put or removal of cl5 has come. Each step has a name, as "payload renamed".
/// @param before the files before the operations.
std::string stepOf(const FileTree& before, const DiskOperations& operations);

} // namespace QmTest
