#pragma once
// Makes system calls fail, as if the kernel refuses a lock or a sync, or a disk breaks.

#include <cstddef>
#include <cstdio>
#include <functional>
#include <vector>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"

namespace QmTest {

constexpr int CANNOT_REFUSE = 77;

/// From now on a system call (__NR_...) of this process fails with the error. It fails only if its
/// argument (counted from 0) is one of the values. Nothing can undo this, so use it inside
/// QM_IN_CHILD only.
inline void refuseCalls(unsigned number, unsigned argument, const std::vector<unsigned>& values,
                        unsigned error)
{
    const auto statement = [](unsigned short code, std::size_t value) {
        return sock_filter(BPF_STMT(code, static_cast<unsigned>(value)));
    };
    const auto jump = [](unsigned value, std::size_t whenEqual, std::size_t otherwise) {
        return sock_filter(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value,
                                    static_cast<unsigned char>(whenEqual),
                                    static_cast<unsigned char>(otherwise)));
    };
    std::vector<sock_filter> filter;
    filter.push_back(statement(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)));
    filter.push_back(jump(number, 0, values.size() + 1));
    // The lower half of the argument: descriptors and commands have 32 bits.
    filter.push_back(statement(BPF_LD | BPF_W | BPF_ABS,
                               offsetof(seccomp_data, args) + argument * sizeof(__u64)));
    for (std::size_t i = 0; i < values.size(); ++i)
        filter.push_back(jump(values[i], values.size() - i, 0));
    filter.push_back(statement(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    filter.push_back(statement(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error));
    const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
        ::_exit(CANNOT_REFUSE);
}

/// Runs a test's body in a forked child. Returns 0 if every expectation held.
inline int runInChild(const std::function<void()>& body)
{
    ChildProcess child([&body] {
        body();
        std::fflush(nullptr); // the failures
        return testing::Test::HasFailure() ? 1 : 0;
    });
    return child.exitCode();
}

} // namespace QmTest

/// Runs a function in a child process and fails if one of its expectations fails. Skips the test if
/// this machine cannot refuse system calls.
#define QM_IN_CHILD(body)                                                                          \
    do {                                                                                           \
        const int qmResult = ::QmTest::runInChild(body);                                           \
        if (qmResult == ::QmTest::CANNOT_REFUSE)                                                   \
            GTEST_SKIP() << "system calls cannot be refused here";                                 \
        EXPECT_EQ(qmResult, 0) << "see the failures above";                                        \
    } while (false)
