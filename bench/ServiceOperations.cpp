#include <memory>
#include <stdexcept>
#include <vector>

#include <DiscoverySvc.hh>

#include "Names.h"
#include "Pages.h"
#include "WireOperations.h"

namespace Veltrane::Quillmark::Bench {

namespace {

namespace Disc = Tlx::DiscoverySvc;
namespace Remote = Tlx::DiscoverySvc::Remote;
using nlohmann::json;

Remote::DiscoveryService_var serviceAt(const Tlx::Orb& orb, const json& command)
{
    const std::string url =
        "corbaloc:iiop:1.2@" + command.at("endpoint").get<std::string>() + "/DiscoveryService";
    const CORBA::Object_var object = orb.getOrb()->string_to_object(url.c_str());
    return Remote::DiscoveryService::_narrow(object);
}

Remote::Discovery recordOf(const std::string& authority, unsigned long number)
{
    Remote::Discovery record;
    record.queryType = Disc::DQ_DISCOVERY_DATA;
    record.subject = CORBA::string_dup(subjectOf(number).c_str());
    record.authority = CORBA::string_dup(authority.c_str());
    record.authType = Disc::AT_QMKCLIENT;
    record.attributes = {Disc::CT_POINT_IN_TIME, Disc::CS_CENTRALREPOSITORY, 1, 0, 0};
    record.sourceHost = CORBA::string_dup("");
    record.sourceServiceName = CORBA::string_dup("");
    return record;
}

void expect(bool good, const std::string& failure)
{
    if (!good)
        throw std::runtime_error(failure);
}

/// Reads the whole payload of a record. An exact name finds the record.
Operation serviceRead(const Tlx::Orb& orb, const json& command)
{
    return [service = serviceAt(orb, command), authority = command.at("authority"),
            size = command.at("size").get<unsigned long>(), numbers = Numbers(command)]() mutable {
        Remote::CollectionDataIterator_var iterator;
        expect(service->getCollectionData(recordOf(authority, numbers.next()), "",
                                          iterator.out()) == Disc::DS_SUCCESS,
               "the service does not find a record");
        iterator->pageSize(PAGE_BYTES);
        unsigned long received = 0;
        for (;;) {
            const Remote::CollectionDataSeq_var page = iterator->getNextPage();
            if (page->length() == 0)
                break;
            received += page->length();
        }
        iterator->release();
        expect(received == size, "the service sent a payload of a wrong size");
    };
}

/// Lists the records of an authority whose subjects match a pattern.
Operation serviceList(const Tlx::Orb& orb, const json& command)
{
    return
        [service = serviceAt(orb, command), authority = command.at("authority").get<std::string>(),
         pattern = command.at("pattern").get<std::string>(),
         count = command.at("count").get<unsigned long>()] {
            Remote::DiscoveryIterator_var iterator = service->queryDiscoveries(
                Disc::DQ_DISCOVERY_DATA, Disc::AT_ANYANDALL, authority.c_str(), pattern.c_str());
            iterator->pageSize(PAGE_RECORDS - 1); // A page holds one record more than this.
            unsigned long found = 0;
            for (;;) {
                const Remote::DiscoverySeq_var page = iterator->getNextPage();
                if (page->length() == 0)
                    break;
                found += page->length();
            }
            iterator->release();
            expect(found == count, "the service lists " + std::to_string(found) + " records");
        };
}

/// Puts a record. The service answers the close when the record survives a power cut.
Operation servicePut(const Tlx::Orb& orb, const json& command)
{
    const std::string payload = payloadOf(command.at("size").get<unsigned long>());
    std::vector<Remote::CollectionDataSeq> pages;
    forEachPage(payload.size(), PAGE_BYTES, [&](unsigned long size) {
        pages.emplace_back();
        pages.back().length(static_cast<CORBA::ULong>(size));
        std::copy_n(payload.begin(), size, pages.back().get_buffer());
    });
    return [service = serviceAt(orb, command), authority = command.at("authority"), pages,
            numbers = Numbers(command)]() mutable {
        Remote::RemoteWriter_var writer;
        expect(
            service->putCollection(recordOf(authority, numbers.next()), writer.out()).discStatus ==
                Disc::DS_SUCCESS,
            "the service refuses a record");
        for (const Remote::CollectionDataSeq& page : pages)
            expect(writer->put(page), "the service refuses a page");
        expect(writer->close().discStatus == Disc::DS_SUCCESS, "the service refuses a close");
    };
}

} // namespace

std::map<std::string, Preparation> serviceOperations(const Tlx::Orb& orb)
{
    return {{"service.read", [&orb](const json& command) { return serviceRead(orb, command); }},
            {"service.list", [&orb](const json& command) { return serviceList(orb, command); }},
            {"service.put", [&orb](const json& command) { return servicePut(orb, command); }}};
}

} // namespace Veltrane::Quillmark::Bench
