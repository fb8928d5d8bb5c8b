#include "CrashPlay.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

#include <tlx/Assert.h>
#include <tlx/Log.h>

#include "PutHistory.h"
#include "support/ChildProcess.h"
#include "support/PeerProcess.h"

namespace QmTest {

namespace {

constexpr unsigned MANY_CALLS = 500; ///< more than any work makes
constexpr std::uint32_t SEED = 20;
constexpr long AGAIN_HERE = 8;       ///< the number of the put after the work
constexpr const char* OVER = "over"; ///< the note at the end of the work

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

} // namespace

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
            for (const Stamped& stamped : all)
                if (putStamped(stamped) != Disc::DS_SUCCESS)
                    return 1;
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
    return runInChild(sequence, fault, defect);
}

int CrashPlay::runInChild(const Sequence& sequence, const Fault& fault, const Defect& defect)
{
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
        player.complain("an assertion failed");
    player.expectNothingOpen(descriptors, "after the work");
    checkInProcess(sequence, fault, player);
    player.expectNothingOpen(descriptors, "after another put");
    Tlx::FileSystem::replace(nullptr);
    return hasFired ? FAULT_SURVIVED : FINISHED;
}

void CrashPlay::checkInProcess(const Sequence& sequence, const Fault& fault, Player& player)
{
    if (sequence.starts) // the next start finishes a start that failed
        return;
    if ((fault.calls & CALL_UNLINK) == 0 && temporariesIn(store()) != 0)
        player.complain("a temporary payload is left");
    for (const std::string& subject : sequence.subjects)
        player.putAgain(subject, AGAIN_HERE, "again");
}

class CrashPlay::Repeater
{
  public:
    Repeater(CrashPlay& play, const Sequence& sequence)
        : m_process([&play, sequence, isStarted = false](const std::string& command) mutable {
              if (!isStarted)
                  play.startStore(sequence);
              isStarted = true;
              Fault fault;
              std::memcpy(&fault, command.data(), sizeof fault);
              return std::to_string(play.play(sequence, fault, {}));
          })
    {
    }
    int run(const Fault& fault) const
    {
        const std::string answer =
            m_process.ask({reinterpret_cast<const char*>(&fault), sizeof fault});
        for (const int code : {FINISHED, FAULT_SURVIVED})
            if (answer == std::to_string(code))
                return code;
        return -1;
    }

  private:
    PeerProcess m_process;
};

const StoreLook& CrashPlay::lookAt(const Sequence& sequence, const FileTree& tree)
{
    const FileTree key = essentials(tree);
    auto known = m_looks.find(key);
    if (known == m_looks.end()) {
        writeTree(m_directory.path().string(), tree);
        known = m_looks.emplace(key, lookAtFiles(sequence)).first;
    }
    return known->second;
}

StoreLook CrashPlay::lookAtFiles(const Sequence& sequence, const Defect& defect)
{
    return lookAtStore(m_directory.path().string(), m_journal, sequence, defect);
}

DiskOperations CrashPlay::workOperations() const
{
    DiskOperations operations = m_journal.operations();
    const auto end = std::find_if(operations.begin(), operations.end(), [](const auto& operation) {
        return operation.kind == DiskOperation::NOTE && operation.path == OVER;
    });
    operations.erase(end, operations.end());
    return operations;
}

/// Complains if a fresh process does not find what it must find in a tree.
void CrashPlay::check(const Sequence& sequence, const DiskOperations& operations,
                      const FileTree& tree, const std::string& where)
{
    const StoreLook& look = lookAt(sequence, tree);
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
    const DiskOperations all = m_journal.operations();
    for (const DiskOperation& operation : all)
        if (operation.kind == DiskOperation::NOTE && operation.path.starts_with(COMPLAINT))
            complain(operation.path + ", " + where);
    const FileTree left = readTree(m_directory.path().string());
    if (DiskModel(m_filled, all).afterKill() != left)
        complain("complaint: the files changed without a call, " + where);

    // The end of the work is the place of the crash. What the child did later was a check.
    const DiskOperations operations = workOperations();
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
    const StoreLook& look = lookAt(sequence, disk.afterWorstCut());
    for (const std::string& subject : sequence.subjects)
        if (const auto state = look.states.find(subject);
            state == look.states.end() || state->second != wholeState(AGAIN_ELSEWHERE))
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

void CrashPlay::playFailures(const Sequence& sequence, Lasting lasting)
{
    const bool lasts = lasting == Lasting::FOR_EVER;
    fill(sequence);
    const Repeater repeater(*this, sequence);
    const auto run = [&](const Fault& fault) {
        return sequence.starts ? runInChild(sequence, fault, {}) : repeater.run(fault);
    };
    if (!lasts)
        failEach(sequence, "short write", {.kind = Fault::SHORT}, run);
    for (const Failure& failure : FAILURES)
        for (const int error : failure.errors)
            if (!lasts || error != EINTR) // the code would repeat it for ever
                failEach(
                    sequence,
                    std::string(failure.name) + " " + ::strerrorname_np(error) +
                        (lasts ? " for ever" : ""),
                    {.kind = Fault::FAIL, .calls = failure.calls, .error = error, .lasts = lasts},
                    run);
}

} // namespace QmTest
