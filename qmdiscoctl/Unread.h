#pragma once
// The discoveries that a command was to read back and could not, or not to their ends.

#include <string>
#include <vector>

#include "Commands.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

struct Unread
{
    std::string subject;
    std::string authority;
    std::string reason;
    friend auto operator<=>(const Unread&, const Unread&) = default;
};

/// Adds a discovery when it was not read to its end.
void noteUnread(const Svc::CollectionItemIterator& items, const std::string& problem,
                std::vector<Unread>& unread);

/// A line for each, sorted.
std::string textOf(std::vector<Unread> unread);
Json documentOf(const std::vector<Unread>& unread);

} // namespace Veltrane::Quillmark::Qmdiscoctl
