#include "Player.h"

#include <filesystem>

#include <tlx/FileLock.h>

#include "support/Descriptors.h"

namespace QmTest {

const Stamped OTHER = {.number = 7, .subject = "other", .signature = 10};

std::size_t temporariesIn(const std::string& directory)
{
    std::error_code missing;
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory, missing))
        count += entry.path().extension() == ".updating" ? 1 : 0;
    return count;
}

std::size_t openDescriptors(const std::string& store)
{
    return descriptorCount() - (descriptorOf(store) >= 0 ? 1 : 0);
}

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

void Player::putAgain(const std::string& subject, long number, const std::string& when)
{
    constexpr unsigned HIGHEST_PRIORITY = 1000; // it exceeds those of all sequences
    if (put({.number = number, .subject = subject, .priority = HIGHEST_PRIORITY}) !=
            Disc::DS_SUCCESS ||
        stampsOf(subject) != wholeState(number))
        complain(subject + " cannot be put " + when);
}

void Player::expectNothingOpen(std::size_t descriptors, const std::string& when)
{
    const auto counts = Tlx::FileLock::counts();
    if (counts.holders != 0 || counts.files != 0 || counts.waiting != 0)
        complain("locks are left " + when);
    if (openDescriptors(m_store) != descriptors)
        complain("descriptors are left " + when);
}

} // namespace QmTest
