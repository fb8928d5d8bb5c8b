#pragma once
// One worker of the soak: it does a mix of operations, and checks every answer.
//
// A worker has an authority of its own, and records of four kinds:
//   r00, r01...    replaced again and again with small payloads. The generation is the priority, so
//                  a put that a killed worker left behind cannot replace a newer one
//   big0, big1...  the same with up to 16 MiB
//   x00, x01...    expire after 1.25 seconds
//   left           what the worker abandons; never stored
// All workers replace the record hot/hot. The driver judges its versions.

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Ledger.h"
#include "Stamp.h"
#include "Target.h"

namespace Veltrane::Quillmark::Soak {

class Worker
{
  public:
    /// @param state what the driver knows: "authority", "number", "ledger" (the path), "seed",
    /// "small", "big", "expiring" (how many records), "pause" (mean microseconds between
    /// operations), "limit" (seconds for an operation), "generations" {name: the last one used},
    /// "versions" {name: [[generation, size]...]} (what a reader may find; the first is the
    /// acknowledged one, or null without one), "writers" (how many it has abandoned),
    /// "iterators" (when it abandoned each, in seconds of CLOCK_MONOTONIC). With "only"
    /// {operation: anything}, the worker does only these operations. The target must outlive the
    /// worker.
    Worker(const nlohmann::json& state, Target& target);

    /// Works until the flag is set. Returns false if it cannot go on.
    bool run(const std::atomic<bool>& stop);

  private:
    struct Record
    {
        Name name;
        std::uint64_t generation = 0; ///< the last one used
        std::optional<Version> stored;
        std::vector<Version> pending; ///< puts of unknown outcome, newer than the stored one
        std::optional<Clock::time_point> gone; ///< from when on an expiring record must be absent
    };

    void addRecords(const nlohmann::json& state, const char* form, unsigned count,
                    std::vector<Record>& records);
    /// An operation, and how often it is done.
    struct Choice
    {
        std::string name;
        std::size_t weight;
        void (*action)(Worker&);
    };
    static const std::vector<Choice>& allChoices();
    void step();
    void reconnect(const std::string& cause);
    template <class Function>
    auto timed(const char* kind, const Function& function);

    void replace(Record& record, std::size_t size, const char* kind);
    void replaceHot();
    void tryOutranked(Record& record);
    void checkRecord(Record& record, const char* kind);
    void readHot();
    void checkOwnList();
    void checkFullList();
    void checkPatternList();
    void checkListed(const std::vector<std::string>& listed, const std::string& prefix,
                     const std::vector<std::string>& known, const char* what);
    void expire(Record& record);
    void abandon();

    Record& any(std::vector<Record>& records);
    std::size_t smallSize();
    std::size_t bigSize();
    std::size_t below(std::size_t bound);

    Target& m_target;
    Ledger m_ledger;
    const std::string m_authority;
    const Clock::duration m_limit;
    const std::chrono::microseconds m_pause;
    std::mt19937_64 m_random;
    std::vector<Choice> m_choices;
    std::vector<Record> m_small;
    std::vector<Record> m_big;
    std::vector<Record> m_expiring;
    Record m_hot;
    unsigned m_writers;
    std::deque<Clock::time_point> m_iterators;
};

} // namespace Veltrane::Quillmark::Soak
