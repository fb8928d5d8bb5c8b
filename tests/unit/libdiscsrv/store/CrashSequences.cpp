#include "CrashSequences.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <thread>

#include <unistd.h>

#include "SleepingThread.h"
#include "support/Eventually.h"

namespace QmTest {

namespace {

const Stamped OLD = {.number = 1, .priority = 1};
const Stamped OLD_EXPIRING = {.number = 1, .priority = 1, .timeToLive = 100};

/// A work that puts one record.
std::function<void(Player&)> putOf(const Stamped& stamped)
{
    return [=](Player& player) { (void)player.put(stamped); };
}

void loseAgainstAnotherPut(Player& player)
{
    const Stamped lower{.number = 2, .priority = 2};
    StampedPut loser(lower);
    const bool isWritten = loser.write() == Disc::DS_SUCCESS;
    (void)player.put({.number = 3, .priority = 3});
    if (isWritten)
        (void)player.persist(loser, lower);
}

void giveAPutUp(Player&)
{
    StampedPut put({.number = 2});
    (void)put.write();
}

void lookUp(Player&)
{
    (void)stampsOf("cl5");
}

/// Puts records in threads. The first one that syncs the directory goes on when each other one
/// waits for a sync or has ended. So the others share one sync.
class SharingPuts
{
  public:
    explicit SharingPuts(Player& player) : m_player(player) {}

    void run()
    {
        m_player.files().setHook([this](const DiskOperation& next) { before(next); });
        std::array<std::thread, PUTS> threads;
        for (std::size_t i = 0; i < PUTS; ++i)
            threads[i] = std::thread([this, i] {
                m_putters[i].thread = ::gettid();
                mine = &m_putters[i];
                (void)m_player.put(
                    {.number = 2, .subject = "cl" + std::to_string(5 + i), .signature = 20});
                m_putters[i].hasEnded = true;
            });
        for (std::thread& thread : threads)
            thread.join();
        m_player.files().setHook({});
    }

  private:
    static constexpr std::size_t PUTS = 3;
    struct Putter
    {
        std::atomic<pid_t> thread{0};
        std::atomic<bool> hasRenamed{false};
        std::atomic<bool> hasEnded{false};

        bool isQueued() const { return hasEnded || (hasRenamed && isAsleep(thread)); }
    };

    void before(const DiskOperation& next)
    {
        if (next.kind == DiskOperation::RENAME)
            mine->hasRenamed = true;
        if (next.kind != DiskOperation::SYNC || !next.path.ends_with("discovery") ||
            m_hasLeader.exchange(true))
            return;
        const Putter* const leader = mine;
        (void)eventually([&] {
            return std::all_of(m_putters.begin(), m_putters.end(), [&](const Putter& putter) {
                return &putter == leader || putter.isQueued();
            });
        });
    }

    static thread_local Putter* mine;

    Player& m_player;
    std::array<Putter, PUTS> m_putters;
    std::atomic<bool> m_hasLeader{false};
};

thread_local SharingPuts::Putter* SharingPuts::mine = nullptr;

void putTwice(Player& player)
{
    std::thread other([&] { (void)player.put({.number = 2}); });
    (void)player.put({.number = 3});
    other.join();
}

} // namespace

const Sequence FIRST_PUT{.work = putOf({.number = 2})};
const Sequence SAME_LENGTH_PUT{.stored = {OLD}, .work = putOf({.number = 2, .priority = 2})};
const Sequence LONGER_PUT{.stored = {{.number = 1, .signature = 100}},
                          .work = putOf({.number = 2})};
const Sequence SHORTER_PUT{.stored = {OLD},
                           .work = putOf({.number = 2, .priority = 2, .signature = 100})};
const Sequence LONGER_PUT_IN_A_SECTOR{.stored = {{.number = 1, .signature = 10}},
                                      .work = putOf({.number = 2, .signature = 60})};
const Sequence SHORTER_PUT_IN_A_SECTOR{.stored = {{.number = 1, .signature = 60}},
                                       .work = putOf({.number = 2, .signature = 10})};
const Sequence REFUSED_PUT{.stored = {OLD}, .work = loseAgainstAnotherPut};
const Sequence GIVEN_UP_PUT{.stored = {OLD}, .work = giveAPutUp};
const Sequence EXPIRY{.stored = {OLD_EXPIRING}, .work = lookUp, .hasExpired = true};
const Sequence PUT_AFTER_EXPIRY{.stored = {OLD_EXPIRING},
                                .work =
                                    [](Player& player) {
                                        lookUp(player);
                                        (void)player.put({.number = 2});
                                    },
                                .hasExpired = true};
const Sequence CLEAN_UP{.stored = {OLD},
                        .work = [](Player& player) { player.start(); },
                        .leftOver = {"0.updating", "1.updating"},
                        .starts = true};
const Sequence FIRST_START{.work =
                               [](Player& player) {
                                   player.start();
                                   (void)player.put({.number = 2});
                               },
                           .hasStore = false,
                           .starts = true};
const Sequence TWO_PUTS{.stored = {OLD}, .work = putTwice};
const Sequence SHARED_SYNC{
    .stored = {OLD},
    .work = [](Player& player) { SharingPuts(player).run(); },
    .subjects = {"cl5", "cl6", "cl7"},
};

} // namespace QmTest
