#pragma once
// What a fresh process finds in the store that a crash play has left.

#include <map>
#include <string>

#include "Player.h"
#include "support/Lines.h"

namespace QmTest {

/// The store's directory, under the root of a play.
constexpr const char* STORE = "db/discovery";

/// The number of the put that the fresh process makes of each subject.
constexpr long AGAIN_ELSEWHERE = 9;

struct StoreLook
{
    std::map<std::string, std::string> states; ///< of each subject
    Lines complaints;
};

/// Starts a process that opens the store, looks the records up, lists them, and puts each subject
/// again. Its operations replace those in the journal.
StoreLook lookAtStore(const std::string& root, DiskJournal& journal, const Sequence& sequence,
                      const Defect& defect);

} // namespace QmTest
