#pragma once
// What a service is asked by more than one command: lists of records, and their data.

#include <compare>
#include <cstddef>
#include <string>
#include <vector>

#include "Wire.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

/// A record as a list has it: query type and attributes are left unset on the wire.
struct Record
{
    std::string subject;
    std::string authority;
    std::string type;
    std::string host;
    std::string service;
    friend auto operator<=>(const Record&, const Record&) = default;
};

/// What is asked for when the data of a record is wanted.
Remote::Discovery recordNamed(const std::string& subject, const std::string& authority,
                              Svc::AuthorityType type, Svc::DiscoveryQuery query);

/// The whole list in an order of its own: the service's is that of its directory, which tells
/// nobody anything. Frees the iterator.
std::vector<Record> readList(RecordPages& pages, std::int32_t recordsPerPage);

/// The whole data of a small record, and the iterator freed. False when there is more than the
/// limit.
bool readData(DataPages& pages, std::size_t limit, std::string& out);

} // namespace Veltrane::Quillmark::Qmdiscoctl
