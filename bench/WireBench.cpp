// Measures the service over the wire: put, query and get, with one client and with many.

#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <tlx/Log.h>
#include <tlx/Orb.h>
#include <tlx/Servant.h>

#include <DiscoverySvc.hh>

#include "BenchedService.h"
#include "EchoServant.h"
#include "Report.h"

namespace {

using namespace Veltrane::Quillmark::Bench;
namespace Tlx = Veltrane::Quillmark::Tlx;
namespace Disc = Veltrane::Quillmark::Tlx::DiscoverySvc;
namespace Remote = Veltrane::Quillmark::Tlx::DiscoverySvc::Remote;

constexpr unsigned long KIB = 1024;
constexpr unsigned long MIB = 1024 * KIB;
constexpr unsigned long PAGE = MIB; // the largest page that the service sends
constexpr unsigned long QUERIED = 1000;

/// The objects that the clients call.
struct Peer
{
    Remote::DiscoveryService_var service;
    Bench::Echo_var echo;
};

Remote::Discovery recordOf(const std::string& subject)
{
    Remote::Discovery record;
    record.queryType = Disc::DQ_DISCOVERY_DATA;
    record.subject = CORBA::string_dup(subject.c_str());
    record.authority = CORBA::string_dup("bench");
    record.authType = Disc::AT_QMKCLIENT;
    record.attributes = {Disc::CT_POINT_IN_TIME, Disc::CS_CENTRALREPOSITORY, 1, 0, 0};
    record.sourceHost = CORBA::string_dup("");
    record.sourceServiceName = CORBA::string_dup("");
    return record;
}

template <class Sequence>
Sequence bytes(unsigned long size)
{
    CORBA::Octet* buffer = Sequence::allocbuf(static_cast<CORBA::ULong>(size));
    for (unsigned long i = 0; i < size; ++i)
        buffer[i] = static_cast<CORBA::Octet>(i);
    return Sequence(static_cast<CORBA::ULong>(size), static_cast<CORBA::ULong>(size), buffer, true);
}

void put(const Peer& peer, const std::string& subject, const Remote::CollectionDataSeq& data)
{
    Remote::RemoteWriter_var writer;
    if (peer.service->putCollection(recordOf(subject), writer.out()).discStatus !=
            Disc::DS_SUCCESS ||
        !writer->put(data) || writer->close().discStatus != Disc::DS_SUCCESS)
        throw std::runtime_error("a put failed");
}

void echoPut(const Peer& peer, const Bench::Bytes& data)
{
    peer.echo->take(Bench::Bytes());
    peer.echo->take(data);
    peer.echo->take(Bench::Bytes());
}

void get(const Peer& peer, const std::string& subject, unsigned long size)
{
    Remote::CollectionDataIterator_var iterator;
    if (peer.service->getCollectionData(recordOf(subject), "", iterator.out()) != Disc::DS_SUCCESS)
        throw std::runtime_error("a get failed");
    iterator->pageSize(PAGE);
    unsigned long received = 0;
    for (;;) {
        const Remote::CollectionDataSeq_var page = iterator->getNextPage();
        if (page->length() == 0)
            break;
        received += page->length();
    }
    iterator->release();
    if (received != size)
        throw std::runtime_error("a get was cut short");
}

void echoGet(const Peer& peer, unsigned long size)
{
    peer.echo->take(Bench::Bytes());
    peer.echo->take(Bench::Bytes());
    for (unsigned long left = size; left > 0; left -= std::min(left, PAGE)) {
        const Bench::Bytes_var page =
            peer.echo->give(static_cast<CORBA::ULong>(std::min(left, PAGE)));
    }
    const Bench::Bytes_var end = peer.echo->give(0);
    peer.echo->take(Bench::Bytes());
}

unsigned long query(const Peer& peer, unsigned long wanted)
{
    Remote::DiscoveryIterator_var iterator =
        peer.service->queryDiscoveries(Disc::DQ_DISCOVERY_DATA, Disc::AT_ANYANDALL, "*", "q*");
    iterator->pageSize(1023);
    unsigned long found = 0;
    for (;;) {
        const Remote::DiscoverySeq_var page = iterator->getNextPage();
        if (page->length() == 0)
            break;
        found += page->length();
    }
    iterator->release();
    if (found != wanted)
        throw std::runtime_error("a query found " + std::to_string(found));
    return found;
}

void echoQuery(const Peer& peer, unsigned long wanted)
{
    peer.echo->take(Bench::Bytes());
    peer.echo->take(Bench::Bytes());
    // A record needs about 112 bytes on the wire.
    const Bench::Bytes_var page = peer.echo->give(static_cast<CORBA::ULong>(wanted * 112));
    const Bench::Bytes_var end = peer.echo->give(0);
    peer.echo->take(Bench::Bytes());
}

/// Divides the operations among the clients. Throws if an operation throws.
double share(unsigned clients, unsigned long operations,
             const std::function<void(unsigned long)>& operation)
{
    std::atomic<unsigned long> next{0};
    std::atomic<bool> failed{false};
    return timed([&] {
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < clients; ++i)
            threads.emplace_back([&] {
                try {
                    for (unsigned long each; !failed && (each = next++) < operations;)
                        operation(each);
                } catch (const CORBA::Exception& e) {
                    std::fprintf(stderr, "bench_wire: %s\n", Tlx::describeException(e).c_str());
                    failed = true;
                } catch (const std::exception& e) {
                    std::fprintf(stderr, "bench_wire: %s\n", e.what());
                    failed = true;
                }
            });
        for (std::thread& thread : threads)
            thread.join();
        if (failed)
            throw std::runtime_error("an operation failed");
    });
}

std::string sizeName(unsigned long size)
{
    return size >= MIB ? fmt::format("{} MiB", size / MIB) : fmt::format("{} KiB", size / KIB);
}

void measurePuts(Report& report, const Peer& peer, unsigned clients)
{
    for (const unsigned long size : {1 * KIB, 64 * KIB}) {
        constexpr unsigned long OPERATIONS = 400;
        const auto data = bytes<Remote::CollectionDataSeq>(size);
        const auto plain = bytes<Bench::Bytes>(size);
        const double floor =
            share(clients, OPERATIONS, [&](unsigned long) { echoPut(peer, plain); });
        const double took = share(clients, OPERATIONS, [&](unsigned long i) {
            put(peer, "p" + std::to_string(i), data);
        });
        report.add({"put " + sizeName(size), fmt::format("{} clients", clients), OPERATIONS, took,
                    floor, OPERATIONS * size});
    }
}

void measureGets(Report& report, const Peer& peer, unsigned clients)
{
    for (const unsigned long size : {1 * KIB, 64 * KIB, 16 * MIB}) {
        const unsigned long operations = size == 16 * MIB ? 64 : 1000;
        const std::string subject = "g" + std::to_string(size);
        const double floor =
            share(clients, operations, [&](unsigned long) { echoGet(peer, size); });
        const double took =
            share(clients, operations, [&](unsigned long) { get(peer, subject, size); });
        report.add({"get " + sizeName(size), fmt::format("{} clients", clients), operations, took,
                    floor, operations * size});
    }
}

void measureQueries(Report& report, const Peer& peer, unsigned clients)
{
    constexpr unsigned long OPERATIONS = 32;
    const double floor =
        share(clients, OPERATIONS, [&](unsigned long) { echoQuery(peer, QUERIED); });
    const double took = share(clients, OPERATIONS, [&](unsigned long) { query(peer, QUERIED); });
    report.add(
        {"query of 1000 records", fmt::format("{} clients", clients), OPERATIONS, took, floor});
}

Report measureAll()
{
    const BenchedService service;
    Tlx::LoggerFactory::instance().setLevel(0);
    Tlx::Orb orb(true, "", "bench", false);
    Peer peer;
    const std::string base = "corbaloc:iiop:1.2@" + service.endpoint() + "/";
    CORBA::Object_var object = orb.getOrb()->string_to_object((base + "DiscoveryService").c_str());
    peer.service = Remote::DiscoveryService::_narrow(object);
    object = orb.getOrb()->string_to_object((base + "Echo").c_str());
    peer.echo = Bench::Echo::_narrow(object);

    for (unsigned long i = 0; i < QUERIED; ++i)
        put(peer, "q" + std::to_string(i), bytes<Remote::CollectionDataSeq>(16));
    for (const unsigned long size : {1 * KIB, 64 * KIB, 16 * MIB})
        put(peer, "g" + std::to_string(size), bytes<Remote::CollectionDataSeq>(size));

    Report report;
    for (const unsigned clients : {1u, 8u, 32u}) {
        measurePuts(report, peer, clients);
        measureQueries(report, peer, clients);
        measureGets(report, peer, clients);
    }
    return report;
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{"Measures the service over the wire beside an echo over the same ORB."};
    std::string json;
    app.add_option("--json", json, "Where the figures go");
    CLI11_PARSE(app, argc, argv);
    try {
        const Report report = measureAll();
        report.print();
        return json.empty() || report.writeJson(json) ? 0 : 1;
    } catch (const CORBA::Exception& e) {
        std::fprintf(stderr, "bench_wire: %s\n", Tlx::describeException(e).c_str());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_wire: %s\n", e.what());
    }
    return 1;
}
