// A writer killed at every file operation. Whatever the moment, a restart finds the record in one
// of the states that the order of writing allows, and every other record untouched:
//
//   killed                                             first put      replacement
//   before the metadata document is written            none           old document, old payload
//   after it, before the stored payload is deleted     new, none      new document, old payload
//   after that, before the rename                      new, none      new document, no payload
//   after the rename                                   new, new       new document, new payload
//
// "none" includes an empty metadata file, which is skipped. The kill is a real one: the writer is a
// child that this process traces, and ends at the entry of its k-th system call on files.

#include "DiscDB.h"

#include <csignal>
#include <set>

#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tlx/Log.h>

#include "StoreFixture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::contentOf;

#ifdef __x86_64__
long systemCallOf(pid_t pid)
{
    user_regs_struct registers = {};
    return ::ptrace(PTRACE_GETREGS, pid, nullptr, &registers) == 0
               ? static_cast<long>(registers.orig_rax)
               : -1;
}
constexpr bool CAN_TRACE = true;
#else
long systemCallOf(pid_t)
{
    return -1;
}
constexpr bool CAN_TRACE = false;
#endif

/// The calls by which the store changes, or comes to know, the file system.
bool isFileOperation(long call)
{
    static const std::set<long> calls = {SYS_openat, SYS_write,     SYS_fsync,     SYS_fcntl,
                                         SYS_unlink, SYS_rename,    SYS_close,     SYS_ftruncate,
                                         SYS_lseek,  SYS_fallocate, SYS_newfstatat};
    return calls.count(call) != 0;
}

bool putRecord(const std::string& subject, const std::string& payload, unsigned priority)
{
    AutoDereference<Discovery> record(getDiscoveryDBDatabase()->newDiscovery(DQ_DISCOVERY_DATA));
    record->setSubject(new Subject(subject));
    record->setAuthority(new Authority("srv1", AT_QMKSERVER));
    record->setAttributes(new CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY,
                                                   TlxObjTime(1), TlxObjTime(), priority));
    return isSuccess(record->open(OM_UPDATE, "")) &&
           record->getCollectionData()->writeCollection(payload.size(), payload.data()) &&
           isSuccess(record->persist());
}

/// Runs the work in a child of its own; its exit code.
template <class Work>
int inChild(Work work)
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        LoggerFactory::instance().setLevel(0);
        ::alarm(60);
        ::_exit(work());
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

enum class Traced
{
    KILLED,   ///< at the operation asked for
    FINISHED, ///< before it came to that
    REFUSED   ///< tracing is not permitted here
};

/// Runs the work in a traced child and kills it at the entry of its k-th file operation.
template <class Work>
Traced killedAt(int k, Work work)
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        LoggerFactory::instance().setLevel(0);
        if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            ::_exit(99);
        ::raise(SIGSTOP);
        ::_exit(work());
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (!WIFSTOPPED(status))
        return Traced::REFUSED;
    ::ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    bool entering = true;
    for (;;) {
        ::ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr);
        ::waitpid(pid, &status, 0);
        if (WIFEXITED(status)) {
            EXPECT_EQ(WEXITSTATUS(status), 0) << "the writer failed by itself";
            return Traced::FINISHED;
        }
        if (!WIFSTOPPED(status) || WSTOPSIG(status) != (SIGTRAP | 0x80))
            continue;
        if (entering && isFileOperation(systemCallOf(pid)) && k-- == 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            return Traced::KILLED;
        }
        entering = !entering;
    }
}

/// What a fresh process finds of a record: "none", or its priority and payload.
std::string found(const std::string& subject)
{
    const AutoDereference<Discovery> record(
        getDiscoveryDBDatabase()->getDiscovery(("1 srv1 " + subject + ".xml").c_str()));
    if (!record)
        return "none";
    std::string text = std::to_string(record->getAttributes()->getPriority()) + " ";
    if (!isSuccess(record->open(OM_READ, "")))
        return text + "without payload";
    char buffer[100];
    const std::size_t count = record->getCollectionData()->readCollection(100, buffer);
    return text + std::string(buffer, std::min<std::size_t>(count, 100));
}

/// A restart after the kill: all that must hold, whatever the moment. 0 when it does.
int restart(const std::string& dir, const std::set<std::string>& allowed)
{
    getDiscoveryDBDatabase()->init(dir);
    for (const auto& entry : std::filesystem::directory_iterator(dir))
        if (entry.path().extension() == ".updating")
            return 10;
    if (found("other") != "3 untouched")
        return 11;
    if (!allowed.count(found("cl5"))) {
        std::fprintf(stderr, "found: %s\n", found("cl5").c_str());
        return 12;
    }
    if (!putRecord("cl5", "after the crash", 9) || found("cl5") != "9 after the crash")
        return 13;
    return 0;
}

/// Kills a put at each of its operations in turn; how many there were.
int killEverywhere(bool replacement, const std::set<std::string>& allowed)
{
    for (int k = 0;; ++k) {
        const QmTest::TemporaryDirectory directory;
        const std::string dir = directory.path().string();
        EXPECT_EQ(inChild([&] {
                      getDiscoveryDBDatabase()->init(dir);
                      return putRecord("other", "untouched", 3) &&
                                     (!replacement || putRecord("cl5", "old", 1))
                                 ? 0
                                 : 1;
                  }),
                  0);
        const Traced traced = killedAt(k, [&] {
            getDiscoveryDBDatabase()->init(dir);
            return putRecord("cl5", "new", 2) ? 0 : 1;
        });
        if (traced == Traced::REFUSED)
            return -1;
        EXPECT_EQ(inChild([&] { return restart(dir, allowed); }), 0)
            << "killed at file operation " << k;
        if (traced == Traced::FINISHED || testing::Test::HasFailure())
            return k;
    }
}

struct DiscDBCrashTest : testing::Test
{
    void SetUp() override
    {
        if (!QmTest::mayOpenRecords())
            GTEST_SKIP() << "records are created with permissions 0: needs root";
        if (!CAN_TRACE)
            GTEST_SKIP() << "system calls are told apart on x86-64 only";
    }
};

TEST_F(DiscDBCrashTest, AFirstPutLeavesNothingOrTheRecord)
{
    const int operations = killEverywhere(false, {"none", "2 without payload", "2 new"});
    if (operations < 0)
        GTEST_SKIP() << "processes may not be traced here";
    EXPECT_GT(operations, 20);
}

TEST_F(DiscDBCrashTest, AReplacementLeavesTheOldRecordOrTheNew)
{
    const int operations = killEverywhere(true, {"1 old", "2 old", "2 without payload", "2 new"});
    if (operations < 0)
        GTEST_SKIP() << "processes may not be traced here";
    EXPECT_GT(operations, 20);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
