#include "Filling.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

#include <DiscDB.h>

#include "Names.h"

namespace Veltrane::Quillmark::Bench {

namespace {

namespace Disc = Tlx::DiscoverySvc;
using std::filesystem::path;

std::string documentOf(const std::string& authority, const std::string& subject)
{
    const Tlx::AutoDereference<Disc::Discovery> record(
        Disc::getDiscoveryDBDatabase()->newDiscovery(Disc::DQ_DISCOVERY_DATA));
    record->setSubject(new Disc::Subject(subject));
    record->setAuthority(new Disc::Authority(authority, Disc::AT_QMKCLIENT));
    record->setAttributes(
        new Disc::CollectionAttributes(Disc::CT_POINT_IN_TIME, Disc::CS_CENTRALREPOSITORY,
                                       Tlx::TlxObjTime::now(), Tlx::TlxObjTime(), 1));
    std::ostringstream text;
    record->writeXml(text, Tlx::XmlStr::XE_UTF8);
    return text.str();
}

/// Writes a file with permissions 0, as all files of a store have.
void write(const path& name, const std::string& content)
{
    std::ofstream file(name, std::ios::binary);
    file << content;
    file.close();
    if (!file)
        throw std::runtime_error("cannot write " + name.string());
    std::filesystem::permissions(name, std::filesystem::perms::none);
}

} // namespace

void fillStore(const path& store, const std::string& authority, unsigned long size,
               unsigned long from, unsigned long to)
{
    const std::string payload = payloadOf(size);
    for (unsigned long number = from; number < to; ++number) {
        const std::string subject = subjectOf(number);
        const std::string stem =
            store /
            fmt::format("{} {} {}", static_cast<int>(Disc::AT_QMKCLIENT), authority, subject);
        write(stem + ".xml", documentOf(authority, subject));
        write(stem + ".dat", payload);
    }
}

} // namespace Veltrane::Quillmark::Bench
