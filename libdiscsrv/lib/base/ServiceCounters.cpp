#include "ServiceCounters.h"

#include <array>
#include <atomic>

#include <tlx/Assert.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr std::array NAMES = {"queries",
                              "recordsReturned",
                              "reads",
                              "bytesRead",
                              "writes",
                              "bytesWritten",
                              "recordsStored",
                              "writersLeft",
                              "requestsRefused",
                              "iteratorsOpen",
                              "iteratorsHighest",
                              "iteratorsGivenUp",
                              "iteratorsRefused",
                              "writersOpen",
                              "writersHighest",
                              "writersGivenUp",
                              "writersRefused",
                              "writersCrowdedOut",
                              "pulledBytes",
                              "pulledBytesHighest",
                              "pullsRefused",
                              "pullsTurnedAway",
                              "explorersGivenUp",
                              "foreignUses"};

std::array<std::atomic<unsigned long long>, NAMES.size()>& values()
{
    static std::array<std::atomic<unsigned long long>, NAMES.size()> counters{};
    return counters;
}

} // namespace

void countService(ServiceCounter counter, unsigned long long amount)
{
    values()[static_cast<std::size_t>(counter)].fetch_add(amount, std::memory_order_relaxed);
}

void setService(ServiceCounter counter, unsigned long long value)
{
    values()[static_cast<std::size_t>(counter)].store(value, std::memory_order_relaxed);
}

void raiseService(ServiceCounter counter, unsigned long long value)
{
    auto& highest = values()[static_cast<std::size_t>(counter)];
    unsigned long long now = highest.load(std::memory_order_relaxed);
    while (now < value && !highest.compare_exchange_weak(now, value, std::memory_order_relaxed)) {
    }
}

std::vector<CounterValue> serviceCounters()
{
    std::vector<CounterValue> result;
    for (std::size_t i = 0; i < NAMES.size(); ++i)
        result.push_back({NAMES[i], values()[i].load(std::memory_order_relaxed)});
    result.push_back({"failedAssertions", assertionCount()});
    return result;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
