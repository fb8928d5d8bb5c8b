#include "LogFlood.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

/// The longest part of a name that distinguishes two places.
constexpr std::size_t MAX_PLACE_NAME_BYTES = 256;

/// "4,711": the digits in groups of three.
std::string grouped(unsigned long long number)
{
    std::string digits = std::to_string(number);
    for (std::size_t behind = 3; behind < digits.size(); behind += 4)
        digits.insert(digits.size() - behind, 1, ',');
    return digits;
}

} // namespace

void FloodLimit::setBurst(unsigned lines)
{
    const std::lock_guard guard(m_mutex);
    m_burst = lines;
}

FloodLimit::Place& FloodLimit::placeOf(const KeyView& key)
{
    const auto known = m_places.find(key);
    if (known != m_places.end())
        return known->second;
    m_isIdle = false;
    if (m_places.size() >= MAX_PLACES)
        return m_places[Key()];
    const auto& [source, operation, line, severity, originator] = key;
    return m_places[Key(source, operation, line, severity, originator)];
}

bool FloodLimit::admits(const LogCaller& caller, unsigned originator, const LogCall& call,
                        std::string_view text)
{
    const std::string_view operation = call.operation ? call.operation : "";
    const std::string_view source = call.place.source ? call.place.source : "";
    const int line = call.place.source ? call.place.line : -call.level;
    const std::lock_guard guard(m_mutex);
    if (m_burst == 0)
        return true;
    Place& place =
        placeOf({source.substr(0, MAX_PLACE_NAME_BYTES), operation.substr(0, MAX_PLACE_NAME_BYTES),
                 line, call.severity, originator});
    ++place.lines;
    if (!place.flooding && place.lines <= m_burst)
        return true;
    ++m_counted;
    ++place.counted;
    place.level = call.level;
    place.severity = call.severity;
    place.operation = operation;
    place.text = beginningOf(text, SUM_TEXT_BYTES);
    place.thread = caller.thread;
    place.originator = originator;
    return false;
}

std::vector<LogRecord> FloodLimit::takeSumsLocked()
{
    const auto now = std::chrono::system_clock::now();
    std::vector<LogRecord> sums;
    for (auto& [key, place] : m_places) {
        if (place.counted == 0)
            continue;
        sums.push_back(
            makeLogRecord({now, place.thread}, place.originator,
                          {place.operation.c_str(), place.level, place.severity, {}},
                          place.text + " ... and " + grouped(place.counted) + " more like this"));
        place.counted = 0;
    }
    return sums;
}

std::vector<LogRecord> FloodLimit::takeSums()
{
    const std::lock_guard guard(m_mutex);
    return takeSumsLocked();
}

std::vector<LogRecord> FloodLimit::endSecond()
{
    const std::lock_guard guard(m_mutex);
    std::vector<LogRecord> sums = takeSumsLocked();
    for (auto each = m_places.begin(); each != m_places.end();) {
        Place& place = each->second;
        if (place.lines == 0) {
            each = m_places.erase(each);
            continue;
        }
        place.flooding = m_burst != 0 && place.lines > m_burst;
        place.lines = 0;
        ++each;
    }
    m_isIdle = m_places.empty();
    return sums;
}

} // namespace Veltrane::Quillmark::Tlx
