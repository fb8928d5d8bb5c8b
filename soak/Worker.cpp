#include "Worker.h"

#include <algorithm>
#include <set>
#include <stdexcept>
#include <thread>

namespace Veltrane::Quillmark::Soak {

namespace {

constexpr std::chrono::seconds TIME_TO_LIVE(1);
/// A record lives 1.25 times its time to live. The rest is for a put that is under way.
constexpr std::chrono::milliseconds SURELY_EXPIRED(2500);
/// After this an iterator that nobody uses is gone.
constexpr std::chrono::seconds EVICTED(330);
constexpr unsigned ABANDONED_WRITERS = 4;            ///< of one worker, until the daemon restarts
constexpr std::size_t ABANDONED_ITERATORS = 6;       ///< of one worker at a time
constexpr std::uint64_t HOT_NUMBERS = 1'000'000'000; ///< generations of the hot record, a worker
constexpr std::size_t KIBIBYTE = 1024;

std::string describe(const std::optional<Version>& version)
{
    return version ? fmt::format("{}:{}", version->generation, version->size) : "none";
}

/// The acknowledged version, and the pending ones.
std::string describe(const std::optional<Version>& stored, const std::vector<Version>& pending)
{
    std::string text = describe(stored);
    for (const Version& each : pending)
        text.append(",").append(describe(each));
    return text;
}

} // namespace

Worker::Worker(const nlohmann::json& state, Target& target)
    : m_target(target), m_ledger(state.at("ledger").get<std::string>()),
      m_authority(state.at("authority").get<std::string>()),
      m_limit(std::chrono::seconds(state.at("limit").get<unsigned>())),
      m_pause(state.at("pause").get<unsigned>()), m_random(state.at("seed").get<std::uint64_t>()),
      m_writers(state.at("writers").get<unsigned>())
{
    for (const Choice& choice : allChoices())
        if (!state.contains("only") || state.at("only").contains(choice.name))
            m_choices.push_back(choice);
    addRecords(state, "r{:02}", state.at("small"), m_small);
    addRecords(state, "big{}", state.at("big"), m_big);
    addRecords(state, "x{:02}", state.at("expiring"), m_expiring);
    for (Record& record : m_expiring)
        record.gone = Clock::now() + SURELY_EXPIRED; // an earlier worker may have put it
    m_hot.name = {"hot", "hot"};
    m_hot.generation =
        state.at("generations")
            .value(m_hot.name.text(), (state.at("number").get<std::uint64_t>() + 1) * HOT_NUMBERS);
    for (const double time : state.at("iterators"))
        m_iterators.emplace_back(
            std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(time)));
}

void Worker::addRecords(const nlohmann::json& state, const char* form, unsigned count,
                        std::vector<Record>& records)
{
    for (unsigned i = 0; i < count; ++i) {
        Record record;
        record.name = {m_authority, fmt::format(fmt::runtime(form), i)};
        const std::string name = record.name.text();
        record.generation = state.at("generations").value(name, std::uint64_t{0});
        if (state.at("versions").contains(name)) {
            const nlohmann::json& versions = state.at("versions").at(name);
            for (std::size_t place = 0; place < versions.size(); ++place) {
                if (versions[place].is_null())
                    continue;
                const Version version{versions[place][0].get<std::uint64_t>(),
                                      versions[place][1].get<std::size_t>()};
                if (place == 0)
                    record.stored = version;
                else
                    record.pending.push_back(version);
            }
        }
        records.push_back(std::move(record));
    }
}

bool Worker::run(const std::atomic<bool>& stop)
{
    try {
        m_target.connect();
        m_ledger.write("up");
        while (!stop) {
            try {
                step();
            } catch (const Late& e) {
                m_ledger.write("late", "{}", e.what());
                reconnect(e.what());
            } catch (const Lost& e) {
                reconnect(e.what());
            }
            if (m_pause.count() > 0)
                std::this_thread::sleep_for(std::chrono::microseconds(
                    below(2 * static_cast<std::size_t>(m_pause.count()))));
        }
        m_ledger.flush();
        m_ledger.write("end");
        return true;
    } catch (const std::exception& e) {
        m_ledger.write("bad", "the worker cannot go on: {}", e.what());
        return false;
    }
}

void Worker::reconnect(const std::string& cause)
{
    m_ledger.write("lost", "{}", cause);
    m_target.connect();
    m_ledger.write("up");
    m_writers = 0;
    m_iterators.clear();
}

/// Does one operation and counts its time.
template <class Function>
auto Worker::timed(const char* kind, const Function& function)
{
    const auto begin = Clock::now();
    auto result = function();
    const auto latency = Clock::now() - begin;
    m_ledger.count(kind, latency);
    if (latency > m_limit)
        m_ledger.write("late", "{} took {:.1f} s", kind,
                       std::chrono::duration<double>(latency).count());
    return result;
}

const std::vector<Worker::Choice>& Worker::allChoices()
{
    static const std::vector<Choice> CHOICES = {
        {"put", 330, [](Worker& w) { w.replace(w.any(w.m_small), w.smallSize(), "put"); }},
        {"put-big", 3, [](Worker& w) { w.replace(w.any(w.m_big), w.bigSize(), "put-big"); }},
        {"put-hot", 60, [](Worker& w) { w.replaceHot(); }},
        {"put-refused", 40, [](Worker& w) { w.tryOutranked(w.any(w.m_small)); }},
        {"read", 380, [](Worker& w) { w.checkRecord(w.any(w.m_small), "read"); }},
        {"read-big", 4, [](Worker& w) { w.checkRecord(w.any(w.m_big), "read-big"); }},
        {"read-hot", 80, [](Worker& w) { w.readHot(); }},
        {"list", 20, [](Worker& w) { w.checkOwnList(); }},
        {"list-all", 8, [](Worker& w) { w.checkFullList(); }},
        {"list-pattern", 20, [](Worker& w) { w.checkPatternList(); }},
        {"expire", 45, [](Worker& w) { w.expire(w.any(w.m_expiring)); }},
        {"abandon", 10, [](Worker& w) { w.abandon(); }},
    };
    return CHOICES;
}

void Worker::step()
{
    std::size_t sum = 0;
    for (const Choice& choice : m_choices)
        sum += choice.weight;
    std::size_t drawn = below(sum);
    for (const Choice& choice : m_choices) {
        if (drawn < choice.weight)
            return choice.action(*this);
        drawn -= choice.weight;
    }
}

void Worker::replace(Record& record, std::size_t size, const char* kind)
{
    const Version version{++record.generation, size};
    const std::string name = record.name.text();
    const std::string payload = makePayload(name, version);
    m_ledger.write("put", "{} {} {} 0", name, version.generation, version.size);
    record.pending.push_back(version);
    const auto outcome = timed(kind, [&] {
        return m_target.put(record.name, {.priority = static_cast<unsigned>(version.generation)},
                            payload);
    });
    if (outcome == PutOutcome::OUTRANKED) {
        m_ledger.write("not", "{} {}", name, version.generation);
        m_ledger.write("bad", "{}: a put of the highest priority is refused", name);
        return;
    }
    m_ledger.write("ack", "{} {}", name, version.generation);
    record.stored = version;
    record.pending.clear();
}

void Worker::replaceHot()
{
    const Version version{++m_hot.generation, smallSize()};
    const std::string name = m_hot.name.text();
    const std::string payload = makePayload(name, version);
    m_ledger.write("put", "{} {} {} 0", name, version.generation, version.size);
    if (timed("put-hot", [&] { return m_target.put(m_hot.name, {.priority = 1}, payload); }) ==
        PutOutcome::STORED) {
        m_ledger.write("ack", "{} {}", name, version.generation);
    } else {
        m_ledger.write("not", "{} {}", name, version.generation);
        m_ledger.write("bad", "{}: a put of the same priority is refused", name);
    }
}

void Worker::tryOutranked(Record& record)
{
    if (!record.stored || record.stored->generation < 2)
        return;
    const std::string name = record.name.text();
    const std::string payload = makePayload(name, {record.generation, SMALLEST_STAMP});
    const auto priority = static_cast<unsigned>(record.stored->generation - 1);
    if (timed("put-refused", [&] {
            return m_target.put(record.name, {.priority = priority}, payload);
        }) != PutOutcome::OUTRANKED)
        m_ledger.write("bad", "{}: a put of priority {} replaces {}", name, priority,
                       describe(record.stored, record.pending));
}

void Worker::checkRecord(Record& record, const char* kind)
{
    std::string payload;
    const auto outcome = timed(kind, [&] { return m_target.read(record.name, payload); });
    const std::string name = record.name.text();
    if (outcome != ReadOutcome::FOUND) {
        if (record.stored)
            m_ledger.write("bad", "{}: {} instead of {}", name,
                           outcome == ReadOutcome::ABSENT ? "missing" : "without a payload",
                           describe(record.stored, record.pending));
        return;
    }
    const auto found = checkPayload(name, payload);
    const auto isFound = [&](const Version& allowed) {
        return allowed.size == found->size &&
               (allowed.size == 0 || allowed.generation == found->generation);
    };
    if (!found)
        m_ledger.write("bad", "{}: spoilt, {} bytes", name, payload.size());
    else if (!(record.stored && isFound(*record.stored)) &&
             std::none_of(record.pending.begin(), record.pending.end(), isFound))
        m_ledger.write("bad", "{}: {} instead of {}", name, describe(found),
                       describe(record.stored, record.pending));
}

void Worker::readHot()
{
    const std::string name = m_hot.name.text();
    const auto begin =
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
            .count();
    std::string payload;
    if (timed("read-hot", [&] { return m_target.read(m_hot.name, payload); }) !=
        ReadOutcome::FOUND) {
        m_ledger.write("none", "{} {}", begin, name);
        return;
    }
    if (const auto found = checkPayload(name, payload))
        m_ledger.write("saw", "{} {} {} {}", begin, name, found->generation, found->size);
    else
        m_ledger.write("bad", "{}: spoilt, {} bytes", name, payload.size());
}

void Worker::checkOwnList()
{
    std::vector<std::string> wanted;
    for (const std::vector<Record>* records : {&m_small, &m_big})
        for (const Record& record : *records)
            if (record.stored)
                wanted.push_back(record.name.text());
    checkListed(timed("list", [&] { return m_target.list(m_authority, "*"); }),
                fmt::format("{}/", m_authority), wanted, "the list of an authority");
}

void Worker::checkFullList()
{
    std::vector<std::string> wanted;
    for (const std::vector<Record>* records : {&m_small, &m_big})
        for (const Record& record : *records)
            if (record.stored)
                wanted.push_back(record.name.text());
    checkListed(timed("list-all", [&] { return m_target.list("*", "*"); }), "", wanted,
                "the list of all");
}

void Worker::checkPatternList()
{
    const char digit = static_cast<char>('0' + below(10));
    std::vector<std::string> wanted;
    for (const Record& record : m_small)
        if (record.stored && record.name.subject[1] == digit)
            wanted.push_back(record.name.text());
    const std::string pattern = fmt::format("r{}*", digit);
    checkListed(timed("list-pattern", [&] { return m_target.list(m_authority, pattern); }),
                fmt::format("{}/r{}", m_authority, digit), wanted, "a list by pattern");
}

/// A list has each wanted record, no record twice, and only names with the prefix.
void Worker::checkListed(const std::vector<std::string>& listed, const std::string& prefix,
                         const std::vector<std::string>& wanted, const char* what)
{
    std::set<std::string> names;
    for (const std::string& name : listed) {
        if (!name.starts_with(prefix))
            m_ledger.write("bad", "{} has {}", what, name);
        if (!names.insert(name).second)
            m_ledger.write("bad", "{} has {} twice", what, name);
    }
    for (const std::string& name : wanted)
        if (!names.contains(name))
            m_ledger.write("bad", "{} lacks {}, and has {} names", what, name, listed.size());
}

/// Puts an expiring record, or expects that it is gone.
void Worker::expire(Record& record)
{
    const std::string name = record.name.text();
    if (record.gone) {
        if (Clock::now() < *record.gone)
            return;
        std::string payload;
        if (timed("read-gone", [&] { return m_target.read(record.name, payload); }) !=
            ReadOutcome::ABSENT)
            m_ledger.write("bad", "{}: has not expired", name);
        record.gone.reset();
        return;
    }
    const Version version{++record.generation, SMALLEST_STAMP};
    m_ledger.write("put", "{} {} {} {}", name, version.generation, version.size,
                   TIME_TO_LIVE.count());
    // The outcome of a put that fails is unknown.
    record.gone = Clock::now() + m_limit + SURELY_EXPIRED;
    if (timed("put", [&] {
            return m_target.put(
                record.name,
                {.priority = static_cast<unsigned>(version.generation), .timeToLive = TIME_TO_LIVE},
                makePayload(name, version));
        }) == PutOutcome::STORED)
        m_ledger.write("ack", "{} {}", name, version.generation);
    else
        m_ledger.write("bad", "{}: a put of the highest priority is refused", name);
    record.gone = Clock::now() + SURELY_EXPIRED;
}

void Worker::abandon()
{
    if (!m_target.mayAbandon())
        return;
    const auto now = Clock::now();
    while (!m_iterators.empty() && now - m_iterators.front() > EVICTED)
        m_iterators.pop_front();
    if (m_writers < ABANDONED_WRITERS) {
        m_ledger.write("writer");
        ++m_writers;
        const Name left{m_authority, "left"};
        m_target.abandonWriter(left, {.priority = 1}, makePayload(left.text(), {1, KIBIBYTE}));
    } else if (m_iterators.size() < ABANDONED_ITERATORS) {
        const bool isData = below(2) == 0;
        m_ledger.write(isData ? "data" : "list");
        m_iterators.push_back(now);
        if (isData)
            m_target.abandonData(any(m_small).name);
        else
            m_target.abandonList(m_authority);
    }
}

Worker::Record& Worker::any(std::vector<Record>& records)
{
    return records[below(records.size())];
}

/// Mostly up to 2 KiB, sometimes up to 64 KiB or empty.
std::size_t Worker::smallSize()
{
    switch (below(20)) {
    case 0:
        return 0;
    case 1:
        return SMALLEST_STAMP;
    case 2:
    case 3:
        return SMALLEST_STAMP + below(64 * KIBIBYTE);
    default:
        return SMALLEST_STAMP + below(2 * KIBIBYTE);
    }
}

/// Up to 16 MiB. Some are small, so the file becomes shorter and longer.
std::size_t Worker::bigSize()
{
    const std::size_t mebibyte = KIBIBYTE * KIBIBYTE;
    return below(4) == 0 ? 16 * mebibyte : SMALLEST_STAMP + below(mebibyte << below(4));
}

std::size_t Worker::below(std::size_t bound)
{
    return std::uniform_int_distribution<std::size_t>(0, bound - 1)(m_random);
}

} // namespace Veltrane::Quillmark::Soak
