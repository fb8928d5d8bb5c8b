#pragma once
// The requests that several commands make: lists of records, and their data.

#include <compare>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "Wire.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

/// A record in a list. Lists contain no query type and no attributes.
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

/// Returns the whole list, sorted, because the service's order has no meaning for a person. Frees
/// the iterator.
std::vector<Record> readList(RecordPages& pages, std::int32_t recordsPerPage);

/// Reads all data of a small record, and frees the iterator. Absent if the data exceeds the limit.
[[nodiscard]] std::optional<std::string> readData(DataPages& pages, std::size_t limit);

} // namespace Veltrane::Quillmark::Qmdiscoctl
