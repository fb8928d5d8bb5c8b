#pragma once
// Records whose parts carry a number, so that a reader knows which put each part is from.

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "StoreFixture.h"

namespace QmTest {

/// The values of a put. Numbers go from 1 to 999. Those from 1 to 9 make documents and payloads
/// that differ in the digit alone. Those from 10 make payloads that take a reader several reads.
struct Stamped
{
    long number = 1;
    std::string subject = "cl5";
    unsigned priority = 5;
    std::size_t signature = 700; ///< its length, which decides the length of the document
    long timeToLive = 0;         ///< seconds
};

/// Sets the clock to the moment of a put.
void setTimeOf(long number);
/// Sets the clock to a time at which records with a time to live have expired.
void setLaterTime();

/// A put in steps. The object abandons the put if it is destroyed before persist.
class StampedPut
{
  public:
    explicit StampedPut(const Stamped& stamped);
    /// Opens the payload and writes it, in two parts.
    Disc::DiscoveryStatus write();
    Disc::DiscoveryStatus persist() { return m_record->persist().discStatus; }

  private:
    const Stamped m_stamped;
    const Tlx::AutoDereference<Disc::Discovery> m_record;
};

/// Does both steps.
Disc::DiscoveryStatus putStamped(const Stamped& stamped);

/// What a lookup in this process finds: the number of the metadata, a slash, the number of the
/// payload, as "2/1". "none" without a record. "mixed" stands for metadata that is not from one
/// put, "spoilt" for such a payload, and "missing" for a payload that cannot be opened.
std::string stampsOf(const std::string& subject);
/// The same if both parts are of this put: "9/9".
std::string wholeState(long number);
bool isWholeState(const std::string& state);

/// The subjects in a listing, by records and by pages. Both must be equal; otherwise the set
/// contains "differs".
std::set<std::string> listedSubjects();

} // namespace QmTest
