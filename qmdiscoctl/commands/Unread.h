#pragma once
// The discoveries that a command could not read completely.

#include <string>
#include <vector>

#include "Commands.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

struct Unread
{
    std::string subject;
    std::string authority;
    std::string reason; ///< escaped for a terminal
    friend auto operator<=>(const Unread&, const Unread&) = default;
};

/// Adds the discovery when it was not read to its end.
void noteUnread(const Svc::CollectionItemIterator& items, std::vector<Unread>& unread);

/// One line for each discovery, sorted.
std::string textOf(std::vector<Unread> unread);
Json documentOf(const std::vector<Unread>& unread);

} // namespace Veltrane::Quillmark::Qmdiscoctl
