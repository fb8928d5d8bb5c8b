#pragma once
// The requests that several commands make: lists of records, and their data.

#include <compare>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "Wire.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

/// A record as it stands in a list. The wire leaves query type and attributes unset there.
struct Record
{
    std::string subject;
    std::string authority;
    std::string type;
    std::string host;
    std::string service;
    friend auto operator<=>(const Record&, const Record&) = default;
};

/// The request for the data of a record.
Remote::Discovery recordNamed(const std::string& subject, const std::string& authority,
                              Svc::AuthorityType type, Svc::DiscoveryQuery query);

/// The whole list, sorted: the service lists records in the order of its directory, which means
/// nothing to a person. Frees the iterator.
std::vector<Record> readList(RecordPages& pages, std::int32_t recordsPerPage);

/// Reads the whole data of a small record, and frees the iterator. Absent when there is more than
/// the limit.
[[nodiscard]] std::optional<std::string> readData(DataPages& pages, std::size_t limit);

} // namespace Veltrane::Quillmark::Qmdiscoctl
