#pragma once
// Plays crashes of a process that works on a store, and looks at what they leave.
//
// A sequence stores some records, and then a child process does the sequence's work on them, with a
// fault at one of its calls. The play takes the fault through all calls of the work, one after the
// other. After each run a fresh process looks at the files: those that the child left (a kill), and
// all those that a disk may lose (power cuts). The play never waits for a disk.

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "DiskModel.h"
#include "StoreLook.h"
#include "support/TemporaryDirectory.h"

namespace QmTest {

class CrashPlay : public testing::Test
{
  protected:
    void SetUp() override;

    /// The exit codes of a child: no fault has hit it, or its work has survived the fault.
    static constexpr int FINISHED = 0;
    static constexpr int FAULT_SURVIVED = 1;

    /// Stops the work at each of its changing calls, and in each eighth of each write. Returns a
    /// line for each step of the put with the states that a reader finds in cl5 afterwards:
    ///
    ///     "payload renamed: kill 2/2, cut 2/1 2/2"
    ///
    /// complaints() has what must not be.
    Lines playCrashes(const Sequence& sequence, const Defect& defect = {});
    enum class Lasting
    {
        ONCE,    ///< a call fails, and does half of a write; later calls succeed
        FOR_EVER ///< later calls of the same kind fail, too
    };
    /// Fails each call of the work with each error that it may have. Fills complaints().
    void playFailures(const Sequence& sequence, Lasting lasting);
    /// What must not be, without repetitions.
    const Lines& complaints() const { return m_complaints; }
    /// How many runs there were, and how many different sets of files a process looked at.
    std::size_t runs() const { return m_runs; }
    std::size_t looks() const { return m_looks.size(); }

    /// Stores the records of a sequence, and keeps the files for all runs.
    void fill(const Sequence& sequence);
    /// Does the work once, in a child. Returns the exit code of the child.
    int run(const Sequence& sequence, const Fault& fault, const Defect& defect = {});
    /// The operations of the last run's work, without those of the checks after it.
    DiskOperations workOperations() const;

  private:
    /// A step of the work, and the states of the first subject after crashes in this step.
    struct Step
    {
        std::string name;
        std::set<std::string> killed;
        std::set<std::string> cut;
    };
    using Steps = std::vector<Step>;

    static bool useMemory();
    /// A process that does the work of a sequence again and again.
    class Repeater;

    void prepareRun();
    int runInChild(const Sequence& sequence, const Fault& fault, const Defect& defect);
    void startStore(const Sequence& sequence);
    int play(const Sequence& sequence, const Fault& fault, const Defect& defect);
    void checkInProcess(const Sequence& sequence, const Fault& fault, Player& player);
    void failEach(const Sequence& sequence, const std::string& name, Fault fault,
                  const std::function<int(const Fault&)>& run);
    void checkRestart(const Sequence& sequence, const std::string& where, const Defect& defect);
    const StoreLook& lookAt(const Sequence& sequence, const FileTree& tree);
    StoreLook lookAtFiles(const Sequence& sequence, const Defect& defect = {});
    void check(const Sequence& sequence, const DiskOperations& operations, const FileTree& tree,
               const std::string& where);
    void checkRun(const Sequence& sequence, const std::string& where, Steps& steps);
    void complain(const std::string& complaint);
    std::string store() const;

    const bool m_usesMemory = useMemory(); ///< before the directory is made
    TemporaryDirectory m_directory;
    DiskJournal m_journal;
    FileTree m_filled;
    std::map<FileTree, StoreLook> m_looks;
    Lines m_complaints;
    std::size_t m_runs = 0;
};

} // namespace QmTest
