// A small workload of the store for callgrind. It counts the instructions of each part, and not the
// time, so the figures are the same on a busy machine. scripts/check --only instructions compares
// them with instructions.json.
//
// One thread works. The pauses let each file become older than the grain of the file system's
// clock. Only then may the store trust what it remembers of a file.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <thread>

#include <stdlib.h>
#include <valgrind/callgrind.h>

#include <DiscDB.h>
#include <tlx/Log.h>

#include "Filling.h"
#include "Names.h"

namespace {

namespace Bench = Veltrane::Quillmark::Bench;
namespace Tlx = Veltrane::Quillmark::Tlx;
namespace Disc = Veltrane::Quillmark::Tlx::DiscoverySvc;
using std::filesystem::path;

constexpr unsigned long STORED = 1000;
constexpr unsigned long LOOKUPS = 20;
constexpr unsigned long PUTS = 50;
constexpr unsigned long READS = 20;
constexpr std::chrono::milliseconds PAUSE(60);     // the store trusts a file after 50 ms
constexpr std::int64_t DISCOVERED = 1'700'000'000; // seconds since the epoch

const char AUTHORITY[] = "bench";
const std::string PAYLOAD = Bench::payloadOf(1024);

void expect(bool good, const char* what)
{
    if (!good)
        throw std::runtime_error(what);
}

void put(unsigned long number)
{
    const Tlx::AutoDereference<Disc::Discovery> record(
        Disc::getDiscoveryDBDatabase()->newDiscovery(Disc::DQ_DISCOVERY_DATA));
    record->setSubject(new Disc::Subject(Bench::subjectOf(number)));
    record->setAuthority(new Disc::Authority(AUTHORITY, Disc::AT_QMKCLIENT));
    record->setAttributes(
        new Disc::CollectionAttributes(Disc::CT_POINT_IN_TIME, Disc::CS_CENTRALREPOSITORY,
                                       Tlx::TlxObjTime(DISCOVERED), Tlx::TlxObjTime(), 1));
    expect(isSuccess(record->open(Disc::OM_UPDATE, "")), "no payload can be written");
    expect(record->getCollectionData()->writeCollection(PAYLOAD.size(), PAYLOAD.data()),
           "a payload is refused");
    expect(isSuccess(record->persist()), "a record is refused");
}

Tlx::AutoDereference<Disc::DiscoveryIterator> query(const std::string& authority,
                                                    const std::string& subject)
{
    Tlx::AutoDereference<Disc::DiscoveryIterator> iterator(
        Disc::getDiscoveryDBDatabase()->getIterator(Disc::DQ_DISCOVERY_DATA));
    iterator->setAuthority(authority, Disc::AT_QMKCLIENT);
    iterator->setSubject(subject);
    return iterator;
}

/// Finds records, and gives each to the function.
unsigned long find(const std::string& authority, const std::string& subject,
                   const std::function<void(Disc::Discovery&)>& use = {})
{
    const auto iterator = query(authority, subject);
    unsigned long found = 0;
    while (Disc::Discovery* next = iterator->getNext()) {
        const Tlx::AutoDereference<Disc::Discovery> record(next);
        if (use)
            use(*record.get());
        ++found;
    }
    return found;
}

void lookUp(unsigned long number)
{
    expect(find(AUTHORITY, Bench::subjectOf(number)) == 1, "a lookup finds no record");
}

void read(unsigned long number)
{
    const unsigned long found =
        find(AUTHORITY, Bench::subjectOf(number), [](Disc::Discovery& record) {
            std::string payload(PAYLOAD.size() + 1, '\0');
            expect(isSuccess(record.open(Disc::OM_READ, "")) &&
                       record.getCollectionData()->readCollection(payload.size(), payload.data()) ==
                           PAYLOAD.size(),
                   "a payload is not whole");
        });
    expect(found == 1, "a read finds no record");
}

void list(const char* pattern, unsigned long wanted)
{
    const auto iterator = query("*", pattern);
    Disc::RecordListing listing(*iterator);
    unsigned long found = 0;
    while (listing.next())
        ++found;
    expect(found == wanted, "a listing is not complete");
}

void pause()
{
    std::this_thread::sleep_for(PAUSE);
}

/// Counts the operation, repeated, without the pauses. It gets the numbers from 1 on.
void count(const char* part, unsigned long repeats,
           const std::function<void(unsigned long)>& operation)
{
    for (unsigned long i = 1; i <= repeats; ++i) {
        pause();
        CALLGRIND_TOGGLE_COLLECT;
        operation(i);
        CALLGRIND_TOGGLE_COLLECT;
    }
    CALLGRIND_DUMP_STATS_AT(part);
}

void work(const path& store)
{
    Tlx::LoggerFactory::instance().setLevel(0);
    Disc::getDiscoveryDBDatabase()->init(store.string());
    Bench::fillStore(store, AUTHORITY, PAYLOAD.size(), 0, STORED);
    CALLGRIND_START_INSTRUMENTATION;
    lookUp(0); // What happens only once is not counted.
    count("exact lookup", LOOKUPS, [](unsigned long i) { lookUp(i * 2); });
    count("read", READS, [](unsigned long i) { read(i * 3); });
    count("first listing", 1, [](unsigned long) { list("*", STORED); });
    count("listing again", 1, [](unsigned long) { list("*", STORED); });
    count("listing of 1 %", 1, [](unsigned long) { list("c42-*", STORED / 100); });
    put(0);
    count("replacing put", PUTS, [](unsigned long i) { put(i); });
    count("new put", PUTS, [](unsigned long i) { put(STORED + i); });
}

} // namespace

int main()
{
    std::string name = (std::filesystem::temp_directory_path() / "qmbench.XXXXXX").string();
    if (!::mkdtemp(name.data())) {
        std::perror("bench_instructions: a temporary directory");
        return 1;
    }
    int result = 0;
    try {
        work(name);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_instructions: %s\n", e.what());
        result = 1;
    }
    std::filesystem::remove_all(name);
    return result;
}
