#include "StoreLook.h"

#include <filesystem>
#include <set>
#include <sstream>

#include <tlx/Log.h>

#include "support/ChildProcess.h"

namespace QmTest {

namespace {

/// The look, in the fresh process. Its results are notes.
void look(const std::string& root, DiskJournal& journal, const Sequence& sequence,
          const Defect& defect)
{
    const std::string store = root + "/" + STORE;
    Tlx::LoggerFactory::instance().setLevel(0);
    const std::size_t descriptors = openDescriptors(store);
    PlayedFileSystem files(root, journal);
    Tlx::FileSystem::replace(&files);
    Player player(files, store);
    if (defect)
        defect(files);
    sequence.hasExpired ? setLaterTime() : setTimeOf(2);
    player.start();
    if (temporariesIn(store) != 0)
        player.complain("the start left a temporary payload");
    std::set<std::string> found;
    if (sequence.hasStore) {
        found.insert(OTHER.subject);
        if (stampsOf(OTHER.subject) != wholeState(OTHER.number))
            player.complain("another record is spoilt");
    }
    std::set<std::string> expected{"Update.lock"};
    for (const std::string& subject : sequence.subjects) {
        const std::string state = stampsOf(subject);
        player.note("state " + subject + " " + state);
        if (state != "none")
            found.insert(subject);
    }
    if (listedSubjects() != found)
        player.complain("the listing has other records than the lookups");
    for (const std::string& subject : sequence.subjects) {
        player.putAgain(subject, AGAIN_ELSEWHERE, "in the next process");
        found.insert(subject);
    }
    for (const std::string& subject : found)
        for (const char* const suffix : {".dat", ".xml"})
            expected.insert("1 srv1 " + subject + suffix);
    std::set<std::string> there;
    for (const auto& entry : std::filesystem::directory_iterator(store))
        there.insert(entry.path().filename().string());
    if (there != expected)
        player.complain("other files are left than those of the records");
    player.expectNothingOpen(descriptors, "in the next process");
    Tlx::FileSystem::replace(nullptr);
}

} // namespace

StoreLook lookAtStore(const std::string& root, DiskJournal& journal, const Sequence& sequence,
                      const Defect& defect)
{
    journal.clear();
    StoreLook found;
    if (ChildProcess([&] { return look(root, journal, sequence, defect), 0; }).exitCode() != 0)
        found.complaints.push_back("complaint: the next process ended");
    for (const DiskOperation& note : journal.operations()) {
        if (note.kind != DiskOperation::NOTE)
            continue;
        std::istringstream words(note.path);
        std::string kind;
        std::string subject;
        words >> kind;
        if (kind == "state") {
            words >> subject;
            words >> found.states[subject];
        } else if (kind == COMPLAINT) {
            found.complaints.push_back(note.path);
        }
    }
    return found;
}

} // namespace QmTest
