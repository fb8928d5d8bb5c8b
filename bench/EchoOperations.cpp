#include <Echo.hh>

#include "Names.h"
#include "Pages.h"
#include "WireOperations.h"

namespace Veltrane::Quillmark::Bench {

namespace {

using nlohmann::json;

/// The bytes of a record in a page of a listing.
constexpr unsigned long RECORD_BYTES = 112;

::Bench::Echo_var echoAt(const Tlx::Orb& orb, const json& command)
{
    const std::string url =
        "corbaloc:iiop:1.2@" + command.at("endpoint").get<std::string>() + "/Echo";
    const CORBA::Object_var object = orb.getOrb()->string_to_object(url.c_str());
    return ::Bench::Echo::_narrow(object);
}

void send(::Bench::Echo_ptr echo)
{
    echo->take(::Bench::Bytes());
}

void receive(::Bench::Echo_ptr echo, unsigned long size)
{
    const ::Bench::Bytes_var page = echo->give(static_cast<CORBA::ULong>(size));
}

/// The calls of a read or of a listing: open, page size, the pages, an empty page, release.
Operation pages(const Tlx::Orb& orb, const json& command, unsigned long total, unsigned long page)
{
    return [echo = echoAt(orb, command), total, page] {
        send(echo);
        send(echo);
        forEachPage(total, page, [&](unsigned long size) { receive(echo, size); });
        receive(echo, 0);
        send(echo);
    };
}

Operation echoRead(const Tlx::Orb& orb, const json& command)
{
    return pages(orb, command, command.at("size").get<unsigned long>(), PAGE_BYTES);
}

::Bench::RecordName nameOf(const std::string& authority, unsigned long number)
{
    ::Bench::RecordName name = {};
    name.subject = CORBA::string_dup(subjectOf(number).c_str());
    name.authority = CORBA::string_dup(authority.c_str());
    name.host = CORBA::string_dup("");
    name.service = CORBA::string_dup("");
    return name;
}

/// A read as the service's clients make it: the first call makes an object, the last removes it.
Operation objectRead(const Tlx::Orb& orb, const json& command)
{
    return [echo = echoAt(orb, command), authority = command.at("authority").get<std::string>(),
            size = command.at("size").get<unsigned long>(), numbers = Numbers(command)]() mutable {
        ::Bench::Pages_var reader;
        echo->open(nameOf(authority, numbers.next()), "", static_cast<CORBA::ULong>(size),
                   reader.out());
        reader->pageSize(PAGE_BYTES);
        while (::Bench::Bytes_var(reader->getNextPage())->length() != 0) {
        }
        reader->release();
    };
}

Operation echoList(const Tlx::Orb& orb, const json& command)
{
    return pages(orb, command, command.at("count").get<unsigned long>() * RECORD_BYTES,
                 PAGE_RECORDS * RECORD_BYTES);
}

/// The calls of a put: open, the pages, close.
Operation echoPut(const Tlx::Orb& orb, const json& command)
{
    const auto size = command.at("size").get<unsigned long>();
    ::Bench::Bytes largest;
    largest.length(static_cast<CORBA::ULong>(std::min(size, PAGE_BYTES)));
    return [echo = echoAt(orb, command), size, largest]() mutable {
        send(echo);
        forEachPage(size, PAGE_BYTES, [&](unsigned long page) {
            largest.length(static_cast<CORBA::ULong>(page));
            echo->take(largest);
        });
        send(echo);
    };
}

} // namespace

std::map<std::string, Preparation> echoOperations(const Tlx::Orb& orb)
{
    return {{"echo.read", [&orb](const json& command) { return echoRead(orb, command); }},
            {"object.read", [&orb](const json& command) { return objectRead(orb, command); }},
            {"echo.list", [&orb](const json& command) { return echoList(orb, command); }},
            {"echo.put", [&orb](const json& command) { return echoPut(orb, command); }}};
}

} // namespace Veltrane::Quillmark::Bench
