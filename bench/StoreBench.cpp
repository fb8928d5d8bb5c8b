// Measures the store with different numbers of records: put, exact lookup, wildcard scan.

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <stdlib.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <tlx/Log.h>

#include "DiscDB.h"
#include "Report.h"
#include "StoreFloor.h"

namespace {

using namespace Veltrane::Quillmark::Bench;
namespace Tlx = Veltrane::Quillmark::Tlx;
namespace Disc = Veltrane::Quillmark::Tlx::DiscoverySvc;
using std::filesystem::path;

const std::string PAYLOAD(1024, 'p');

std::string subjectOf(unsigned long number)
{
    return "client" + std::to_string(number);
}

Tlx::AutoDereference<Disc::Discovery> make(const std::string& subject)
{
    Tlx::AutoDereference<Disc::Discovery> record(
        Disc::getDiscoveryDBDatabase()->newDiscovery(Disc::DQ_DISCOVERY_DATA));
    record->setSubject(new Disc::Subject(subject));
    record->setAuthority(new Disc::Authority("bench", Disc::AT_QMKCLIENT));
    record->setAttributes(
        new Disc::CollectionAttributes(Disc::CT_POINT_IN_TIME, Disc::CS_CENTRALREPOSITORY,
                                       Tlx::TlxObjTime::now(), Tlx::TlxObjTime(), 1));
    return record;
}

std::string documentOf(const std::string& subject)
{
    std::ostringstream text;
    make(subject)->writeXml(text, Tlx::XmlStr::XE_UTF8);
    return text.str();
}

void put(const std::string& subject)
{
    const auto record = make(subject);
    if (!isSuccess(record->open(Disc::OM_UPDATE, "")) ||
        !record->getCollectionData()->writeCollection(PAYLOAD.size(), PAYLOAD.data()) ||
        !isSuccess(record->persist()))
        throw std::runtime_error("a put failed");
}

std::size_t count(const std::string& authority, const std::string& subject)
{
    const Tlx::AutoDereference<Disc::DiscoveryIterator> iterator(
        Disc::getDiscoveryDBDatabase()->getIterator(Disc::DQ_DISCOVERY_DATA));
    iterator->setAuthority(authority, Disc::AT_QMKCLIENT);
    iterator->setSubject(subject);
    std::size_t found = 0;
    while (Disc::Discovery* next = iterator->getNext()) {
        const Tlx::AutoDereference<Disc::Discovery> record(next);
        ++found;
    }
    return found;
}

void expect(std::size_t got, std::size_t wanted)
{
    if (got != wanted)
        throw std::runtime_error("found " + std::to_string(got) + " records instead of " +
                                 std::to_string(wanted));
}

/// Writes the files of records as the store does, but without the syncs.
void fill(const path& store, unsigned long from, unsigned long records)
{
    for (unsigned long i = from; i < records; ++i) {
        const std::string name = "2 bench " + subjectOf(i);
        std::ofstream(store / (name + ".xml")) << documentOf(subjectOf(i));
        std::ofstream(store / (name + ".dat")) << PAYLOAD;
    }
    ::sync();
}

void measure(Report& report, const path& store, const path& plain, unsigned long records)
{
    const std::string condition = std::to_string(records) + " records";
    constexpr unsigned long PUTS = 200;
    const std::string document = documentOf("other");
    const double floorPut = timed([&] {
        for (unsigned long i = 0; i < PUTS; ++i)
            putFiles(plain, "other" + std::to_string(i), document, PAYLOAD);
    });
    const double puts = timed([&] {
        for (unsigned long i = 0; i < PUTS; ++i)
            put("other" + std::to_string(i));
    });
    report.add({"put 1 KiB", condition, PUTS, puts, floorPut, PUTS * PAYLOAD.size()});

    const unsigned long lookups = std::min(records, records > 50000 ? 20ul : 200ul);
    const double floorLookup = timed([&] {
        for (unsigned long i = 0; i < lookups; ++i)
            readFile(store / ("2 bench " + subjectOf(i * (records / lookups)) + ".xml"));
    });
    const double lookup = timed([&] {
        for (unsigned long i = 0; i < lookups; ++i)
            expect(count("bench", subjectOf(i * (records / lookups))), 1);
    });
    report.add({"exact lookup", condition, lookups, lookup, floorLookup});

    const double floorScan = timed([&] { expect(scanFiles(store), records + PUTS); });
    const double scan = timed([&] { expect(count("*", "client*"), records); });
    report.add({"wildcard scan (record)", condition, records, scan, floorScan});
}

/// Measures one store. Adds records before each measurement.
Report measureAll(const std::vector<unsigned long>& sizes)
{
    std::string name = (std::filesystem::temp_directory_path() / "qmbench.XXXXXX").string();
    if (!::mkdtemp(name.data()))
        throw std::runtime_error("no temporary directory");
    const path root(name);
    std::filesystem::create_directories(root / "store");
    std::filesystem::create_directories(root / "plain");
    Tlx::LoggerFactory::instance().setLevel(0);
    Disc::getDiscoveryDBDatabase()->init((root / "store").string());
    Report report;
    unsigned long filled = 0;
    for (const unsigned long records : sizes) {
        fill(root / "store", filled, records);
        filled = records;
        measure(report, root / "store", root / "plain", records);
    }
    std::filesystem::remove_all(root);
    return report;
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{"Measures the on-disk store beside plain file operations."};
    std::string json;
    std::vector<unsigned long> sizes{1000, 10000, 100000};
    app.add_option("--json", json, "Where the figures go");
    app.add_option("--records", sizes, "How many records the store holds, ascending")
        ->check(CLI::PositiveNumber);
    CLI11_PARSE(app, argc, argv);
    try {
        const Report report = measureAll(sizes);
        report.print();
        return json.empty() || report.writeJson(json) ? 0 : 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_store: %s\n", e.what());
        return 1;
    }
}
