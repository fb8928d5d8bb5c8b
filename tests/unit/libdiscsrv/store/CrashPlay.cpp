#include "CrashPlay.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include <unistd.h>

#include <tlx/Assert.h>
#include <tlx/FileLock.h>
#include <tlx/Log.h>

#include "PutHistory.h"
#include "support/ChildProcess.h"
#include "support/Descriptors.h"
#include "support/PeerProcess.h"

namespace QmTest {

namespace {

constexpr unsigned MANY_CALLS = 500; ///< more than any work makes
constexpr int FINISHED = 0;          ///< the exit code of a child that no fault hit
constexpr int FAULT_SURVIVED = 1;
constexpr std::uint32_t SEED = 20;
/// Of the puts that the play itself makes. Their priority exceeds all others.
constexpr long AGAIN_HERE = 8;
constexpr long AGAIN_ELSEWHERE = 9;
constexpr unsigned HIGHEST_PRIORITY = 1000;
const Stamped OTHER = {.number = 7, .subject = "other", .signature = 10};
const char* const STORE = "db/discovery";
const char* const OVER = "over";

struct Failure
{
    const char* name;
    Calls calls;
    std::vector<int> errors;
};

const std::array FAILURES{
    Failure{"open", CALL_OPEN, {EIO, EINTR, EMFILE, EACCES}},
    Failure{"create", CALL_CREATE, {ENOSPC, EIO, EINTR, EMFILE, EACCES}},
    Failure{"close", CALL_CLOSE, {EIO, EINTR}},
    Failure{"read", CALL_READ, {EIO, EINTR}},
    Failure{"write", CALL_WRITE, {ENOSPC, EIO, EINTR}},
    Failure{"fallocate", CALL_RESERVE, {ENOSPC, EIO, EINTR, EOPNOTSUPP}},
    Failure{"ftruncate", CALL_RESIZE, {EIO, EINTR}},
    Failure{"sync", CALL_SYNC, {ENOSPC, EIO, EINTR}},
    Failure{"rename", CALL_RENAME, {ENOSPC, EIO, EINTR, EACCES}},
    Failure{"unlink", CALL_UNLINK, {EIO, EINTR, EACCES}},
    Failure{"mkdir", CALL_MKDIR, {ENOSPC, EIO, EACCES}},
    Failure{"status", CALL_STATUS, {EIO, EINTR, EACCES}},
    Failure{"lock", CALL_LOCK, {EINTR, ENOLCK}},
    Failure{"opendir", CALL_OPENDIR, {EIO, EMFILE, EACCES}},
    Failure{"readdir", CALL_READDIR, {EIO}},
    // A disk that is full, or a table of files that is.
    Failure{"disk",
            CALL_CREATE | CALL_WRITE | CALL_RESERVE | CALL_SYNC | CALL_RENAME | CALL_MKDIR,
            {ENOSPC}},
    Failure{"descriptors", CALL_OPEN | CALL_CREATE | CALL_OPENDIR, {EMFILE}},
};

std::size_t temporariesIn(const std::string& directory)
{
    std::error_code missing;
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory, missing))
        count += entry.path().extension() == ".updating" ? 1 : 0;
    return count;
}

/// A set of files without the content of temporary payloads, which nobody reads.
FileTree essentials(FileTree tree)
{
    for (auto& [path, content] : tree)
        if (path.ends_with(".updating"))
            content = "";
    return tree;
}

std::string joined(const std::set<std::string>& words)
{
    std::string text;
    for (const std::string& word : words)
        text += ' ' + word;
    return text;
}

/// Counts the open descriptors without the directory, which the store keeps open after a listing.
std::size_t openDescriptors(const std::string& store)
{
    return descriptorCount() - (descriptorOf(store) >= 0 ? 1 : 0);
}

/// Complains if this process has locks, or another number of descriptors than before.
void expectNothingOpen(Player& player, std::size_t descriptors, const std::string& when)
{
    const auto counts = Tlx::FileLock::counts();
    if (counts.holders != 0 || counts.files != 0 || counts.waiting != 0)
        player.note("complaint: locks are left " + when);
    if (openDescriptors(player.store()) != descriptors)
        player.note("complaint: descriptors are left " + when);
}

} // namespace

Disc::DiscoveryStatus Player::put(const Stamped& stamped)
{
    StampedPut put(stamped);
    const Disc::DiscoveryStatus written = put.write();
    return written == Disc::DS_SUCCESS ? persist(put, stamped) : written;
}

Disc::DiscoveryStatus Player::persist(StampedPut& put, const Stamped& stamped)
{
    const std::string name = " " + stamped.subject + " " + std::to_string(stamped.number);
    note("begun" + name);
    const Disc::DiscoveryStatus status = put.persist();
    note((status == Disc::DS_SUCCESS       ? "acknowledged"
          : status == Disc::DS_DATA_EXISTS ? "refused"
                                           : "failed") +
         name);
    return status;
}

void Player::start()
{
    Disc::getDiscoveryDBDatabase()->init(m_store);
}

void CrashPlay::SetUp()
{
    if (!mayOpenRecords())
        GTEST_SKIP() << "records are created with permissions 0: needs root";
}

/// Puts temporary directories into a file system in memory if there is one. The play makes and
/// removes thousands of files.
bool CrashPlay::useMemory()
{
    const char* const memory = "/dev/shm";
    return ::access(memory, R_OK | W_OK | X_OK) == 0 && ::setenv("TMPDIR", memory, 1) == 0;
}

std::string CrashPlay::store() const
{
    return m_directory.path(STORE);
}

void CrashPlay::complain(const std::string& complaint)
{
    if (std::find(m_complaints.begin(), m_complaints.end(), complaint) == m_complaints.end())
        m_complaints.push_back(complaint);
}

void CrashPlay::fill(const Sequence& sequence)
{
    writeTree(m_directory.path().string(), {});
    m_looks.clear();
    if (sequence.hasStore) {
        const auto body = [&] {
            Tlx::LoggerFactory::instance().setLevel(0);
            setTimeOf(1);
            Disc::getDiscoveryDBDatabase()->init(store());
            std::vector<Stamped> all = sequence.stored;
            all.push_back(OTHER);
            for (const Stamped& stamped : all) {
                StampedPut put(stamped);
                if (put.write() != Disc::DS_SUCCESS || put.persist() != Disc::DS_SUCCESS)
                    return 1;
            }
            for (const std::string& name : sequence.leftOver)
                writeFile(store() + "/" + name, "given up");
            return 0;
        };
        ASSERT_EQ(ChildProcess(body).exitCode(), 0) << "the store could not be filled";
    }
    m_filled = readTree(m_directory.path().string());
}

void CrashPlay::prepareRun()
{
    ++m_runs;
    writeTree(m_directory.path().string(), m_filled);
    m_journal.clear();
}

int CrashPlay::run(const Sequence& sequence, const Fault& fault, const Defect& defect)
{
    prepareRun();
    return ChildProcess([&] {
               startStore(sequence);
               return play(sequence, fault, defect);
           })
        .exitCode();
}

/// The beginning of a child.
void CrashPlay::startStore(const Sequence& sequence)
{
    Tlx::LoggerFactory::instance().setLevel(0);
    sequence.hasExpired ? setLaterTime() : setTimeOf(2);
    if (!sequence.starts)
        Disc::getDiscoveryDBDatabase()->init(store());
}

/// The work of a child.
int CrashPlay::play(const Sequence& sequence, const Fault& fault, const Defect& defect)
{
    PlayedFileSystem files(m_directory.path().string(), m_journal);
    Tlx::FileSystem::replace(&files);
    Player player(files, store());
    if (defect)
        defect(files);
    const std::size_t descriptors = openDescriptors(store());
    const unsigned long assertions = Tlx::assertionCount();
    files.arm(fault);
    sequence.work(player);
    const bool hasFired = files.hasFired();
    files.note(OVER);
    files.disarm();
    if (Tlx::assertionCount() != assertions && (fault.calls & CALL_CLOSE) == 0)
        player.note("complaint: an assertion failed");
    expectNothingOpen(player, descriptors, "after the work");
    checkInProcess(sequence, fault, player);
    expectNothingOpen(player, descriptors, "after another put");
    Tlx::FileSystem::replace(nullptr);
    return hasFired ? FAULT_SURVIVED : FINISHED;
}

void CrashPlay::checkInProcess(const Sequence& sequence, const Fault& fault, Player& player)
{
    if (sequence.starts) // the next start finishes a start that failed
        return;
    if ((fault.calls & CALL_UNLINK) == 0 && temporariesIn(store()) != 0)
        player.note("complaint: a temporary payload is left");
    for (const std::string& subject : sequence.subjects)
        if (player.put({.number = AGAIN_HERE, .subject = subject, .priority = HIGHEST_PRIORITY}) !=
                Disc::DS_SUCCESS ||
            stampsOf(subject) != "8/8")
            player.note("complaint: " + subject + " cannot be put again");
}

class CrashPlay::Repeater
{
  public:
    Repeater(CrashPlay& play, const Sequence& sequence, const Defect& defect)
        : m_process(
              [&play, sequence, defect, isStarted = false](const std::string& command) mutable {
                  if (!isStarted)
                      play.startStore(sequence);
                  isStarted = true;
                  Fault fault;
                  std::memcpy(&fault, command.data(), sizeof fault);
                  return std::to_string(play.play(sequence, fault, defect));
              })
    {
    }
    int run(const Fault& fault) const
    {
        const std::string answer =
            m_process.ask({reinterpret_cast<const char*>(&fault), sizeof fault});
        return answer == "0" ? FINISHED : answer == "1" ? FAULT_SURVIVED : -1;
    }

  private:
    PeerProcess m_process;
};

const CrashPlay::Look& CrashPlay::lookAt(const Sequence& sequence, const FileTree& tree)
{
    const FileTree key = essentials(tree);
    auto known = m_looks.find(key);
    if (known == m_looks.end())
        known = m_looks.emplace(key, lookFresh(sequence, tree)).first;
    return known->second;
}

CrashPlay::Look CrashPlay::lookFresh(const Sequence& sequence, const FileTree& tree)
{
    writeTree(m_directory.path().string(), tree);
    return lookAtFiles(sequence);
}

CrashPlay::Look CrashPlay::lookAtFiles(const Sequence& sequence, const Defect& defect)
{
    m_journal.clear();
    Look look;
    if (ChildProcess([&] { return lookInChild(sequence, defect), 0; }).exitCode() != 0)
        look.complaints.push_back("complaint: the next process ended");
    for (const DiskOperation& note : m_journal.operations()) {
        if (note.kind != DiskOperation::NOTE)
            continue;
        std::istringstream words(note.path);
        std::string kind;
        std::string subject;
        words >> kind;
        if (kind == "state") {
            words >> subject;
            words >> look.states[subject];
        } else if (kind == "complaint:") {
            look.complaints.push_back(note.path);
        }
    }
    return look;
}

/// The look of a fresh process.
void CrashPlay::lookInChild(const Sequence& sequence, const Defect& defect)
{
    Tlx::LoggerFactory::instance().setLevel(0);
    const std::size_t descriptors = openDescriptors(store());
    PlayedFileSystem files(m_directory.path().string(), m_journal);
    Tlx::FileSystem::replace(&files);
    Player player(files, store());
    if (defect)
        defect(files);
    sequence.hasExpired ? setLaterTime() : setTimeOf(2);
    player.start();
    if (temporariesIn(store()) != 0)
        player.note("complaint: the start left a temporary payload");
    std::set<std::string> found;
    if (sequence.hasStore) {
        found.insert(OTHER.subject);
        if (stampsOf(OTHER.subject) != "7/7")
            player.note("complaint: another record is spoilt");
    }
    std::set<std::string> expected{"Update.lock"};
    for (const std::string& subject : sequence.subjects) {
        const std::string state = stampsOf(subject);
        player.note("state " + subject + " " + state);
        if (state != "none")
            found.insert(subject);
    }
    if (listedSubjects() != found)
        player.note("complaint: the listing has other records than the lookups");
    for (const std::string& subject : sequence.subjects) {
        if (player.put(
                {.number = AGAIN_ELSEWHERE, .subject = subject, .priority = HIGHEST_PRIORITY}) !=
                Disc::DS_SUCCESS ||
            stampsOf(subject) != "9/9")
            player.note("complaint: " + subject + " cannot be put in the next process");
        found.insert(subject);
    }
    for (const std::string& subject : found)
        for (const char* const suffix : {".dat", ".xml"})
            expected.insert("1 srv1 " + subject + suffix);
    std::set<std::string> there;
    for (const auto& entry : std::filesystem::directory_iterator(store()))
        there.insert(entry.path().filename().string());
    if (there != expected)
        player.note("complaint: other files are left than those of the records");
    expectNothingOpen(player, descriptors, "in the next process");
    Tlx::FileSystem::replace(nullptr);
}

/// Complains if a fresh process does not find what it must find in a tree.
void CrashPlay::check(const Sequence& sequence, const DiskOperations& operations,
                      const FileTree& tree, const std::string& where)
{
    const Look& look = lookAt(sequence, tree);
    for (const std::string& complaint : look.complaints)
        complain(complaint + ", " + where);
    for (const std::string& subject : sequence.subjects) {
        const auto stored =
            std::find_if(sequence.stored.begin(), sequence.stored.end(),
                         [&](const Stamped& stamped) { return stamped.subject == subject; });
        const PutHistory history(subject, stored == sequence.stored.end() ? nullptr : &*stored,
                                 sequence.hasExpired, operations);
        const auto state = look.states.find(subject);
        if (state == look.states.end())
            complain("complaint: nothing is known of " + subject + ", " + where);
        else if (!history.allows(state->second))
            complain("complaint: " + subject + " is " + state->second + ", " + where);
    }
}

/// Checks what a run left, after a kill and after all power cuts.
void CrashPlay::checkRun(const Sequence& sequence, const std::string& where, Steps& steps)
{
    DiskOperations operations = m_journal.operations();
    for (const DiskOperation& operation : operations)
        if (operation.kind == DiskOperation::NOTE && operation.path.starts_with("complaint:"))
            complain(operation.path + ", " + where);
    const FileTree left = readTree(m_directory.path().string());
    if (DiskModel(m_filled, operations).afterKill() != left)
        complain("complaint: the files changed without a call, " + where);

    // The end of the work is the place of the crash. What the child did later was a check.
    const auto end = std::find_if(operations.begin(), operations.end(), [](const auto& operation) {
        return operation.kind == DiskOperation::NOTE && operation.path == OVER;
    });
    operations.erase(end, operations.end());
    const DiskModel disk(m_filled, operations);
    const std::string name = stepOf(m_filled, operations);
    auto step = std::find_if(steps.begin(), steps.end(),
                             [&](const Step& known) { return known.name == name; });
    if (step == steps.end())
        step = steps.insert(steps.end(), Step{name, {}, {}});
    const FileTree afterKill = disk.afterKill();
    check(sequence, operations, afterKill, where + ", kill");
    step->killed.insert(lookAt(sequence, afterKill).states.begin()->second);
    for (const FileTree& tree : disk.afterCuts(SEED)) {
        check(sequence, operations, tree, where + ", cut");
        step->cut.insert(lookAt(sequence, tree).states.begin()->second);
    }
}

/// Checks the files of the last run like this: the next process starts, puts the records, and then
/// the power is cut.
void CrashPlay::checkRestart(const Sequence& sequence, const std::string& where,
                             const Defect& defect)
{
    DiskModel disk(m_filled, m_journal.operations());
    (void)lookAtFiles(sequence, defect);
    disk.add(m_journal.operations());
    const Look& look = lookAt(sequence, disk.afterWorstCut());
    for (const std::string& subject : sequence.subjects)
        if (const auto state = look.states.find(subject);
            state == look.states.end() || state->second != "9/9")
            complain("complaint: a put after the restart is lost, " + where);
    for (const std::string& complaint : look.complaints)
        complain(complaint + ", restart, " + where);
}

Lines CrashPlay::playCrashes(const Sequence& sequence, const Defect& defect)
{
    fill(sequence);
    Steps steps;
    for (unsigned eighths = 0; eighths < 8; ++eighths)
        for (unsigned at = 1;; ++at) {
            const Fault fault{
                .kind = eighths ? Fault::TEAR : Fault::STOP, .at = at, .eighths = eighths};
            const int code = run(sequence, fault, defect);
            const std::string where = (eighths ? "torn write " : "stop ") + std::to_string(at) +
                                      " after '" + stepOf(m_filled, m_journal.operations()) + "'";
            if (code != FINISHED && code != PlayedFileSystem::STOPPED)
                complain("complaint: the child ended with " + std::to_string(code) + ", " + where);
            checkRun(sequence, where, steps);
            if (at > MANY_CALLS)
                complain("complaint: the work never ended, " + where);
            if (code != PlayedFileSystem::STOPPED || at > MANY_CALLS)
                break;
            if (eighths == 0 && run(sequence, fault, defect) == PlayedFileSystem::STOPPED)
                checkRestart(sequence, where, defect);
        }
    Lines table;
    for (const Step& step : steps)
        table.push_back(step.name + ": kill" + joined(step.killed) + ", cut" + joined(step.cut));
    return table;
}

/// Takes a failure through all calls of the work.
void CrashPlay::failEach(const Sequence& sequence, const std::string& name, Fault fault,
                         const std::function<int(const Fault&)>& run)
{
    Steps steps;
    for (fault.at = 1; fault.at < MANY_CALLS; ++fault.at) {
        prepareRun();
        const int code = run(fault);
        const std::string where = name + " " + std::to_string(fault.at);
        if (code == FINISHED)
            return;
        if (code != FAULT_SURVIVED)
            return complain("complaint: the child ended, " + where);
        checkRun(sequence, where, steps);
    }
    complain("complaint: the work never ended, " + name);
}

void CrashPlay::playFailures(const Sequence& sequence, const Defect& defect)
{
    fill(sequence);
    const Repeater repeater(*this, sequence, defect);
    const auto run = [&](const Fault& fault) {
        if (!sequence.starts)
            return repeater.run(fault);
        return ChildProcess([&] {
                   startStore(sequence);
                   return play(sequence, fault, defect);
               })
            .exitCode();
    };
    failEach(sequence, "short write", {.kind = Fault::SHORT}, run);
    for (const Failure& failure : FAILURES)
        for (const int error : failure.errors)
            for (const bool lasts : {false, true})
                if (!lasts || error != EINTR) // the code would repeat it for ever
                    failEach(sequence,
                             std::string(failure.name) + " " + ::strerrorname_np(error) +
                                 (lasts ? " for ever" : ""),
                             {.kind = Fault::FAIL,
                              .calls = failure.calls,
                              .error = error,
                              .lasts = lasts},
                             run);
}

} // namespace QmTest
