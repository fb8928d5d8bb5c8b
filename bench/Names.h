#pragma once
// The names of the records that a benchmark writes and reads.

#include <string>

#include <fmt/format.h>

namespace Veltrane::Quillmark::Bench {

/// The subject of a record, for example "c42-001042". Each of the hundred prefixes has one percent
/// of the records, whatever their number.
inline std::string subjectOf(unsigned long number)
{
    return fmt::format("c{:02}-{:06}", number % 100, number);
}

/// A payload of the given size. All records of one size have the same bytes.
inline std::string payloadOf(unsigned long size)
{
    std::string bytes(size, '\0');
    for (unsigned long i = 0; i < size; ++i)
        bytes[i] = static_cast<char>('a' + i % 26);
    return bytes;
}

} // namespace Veltrane::Quillmark::Bench
