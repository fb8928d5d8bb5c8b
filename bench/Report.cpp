#include "Report.h"

#include <fstream>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace Veltrane::Quillmark::Bench {

namespace {

std::string perSecond(const Row& row, double seconds)
{
    return seconds > 0 ? fmt::format("{:.0f}", static_cast<double>(row.operations) / seconds) : "-";
}

} // namespace

double timed(const std::function<void()>& work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void Report::add(const Row& row)
{
    m_rows.push_back(row);
}

void Report::print() const
{
    fmt::print("{:<22} {:<16} {:>10} {:>12} {:>12} {:>9} {:>8}\n", "operation", "condition",
               "operations", "per second", "floor/s", "MiB/s", "x floor");
    for (const Row& row : m_rows)
        fmt::print("{:<22} {:<16} {:>10} {:>12} {:>12} {:>9} {:>8.2f}\n", row.name, row.condition,
                   row.operations, perSecond(row, row.seconds), perSecond(row, row.floorSeconds),
                   row.bytes ? fmt::format("{:.1f}",
                                           static_cast<double>(row.bytes) / row.seconds / (1 << 20))
                             : "-",
                   row.ratio());
}

bool Report::writeJson(const std::string& path) const
{
    nlohmann::json rows = nlohmann::json::array();
    for (const Row& row : m_rows)
        rows.push_back({{"operation", row.name},
                        {"condition", row.condition},
                        {"operations", row.operations},
                        {"seconds", row.seconds},
                        {"floorSeconds", row.floorSeconds},
                        {"bytes", row.bytes},
                        {"timesFloor", row.ratio()}});
    std::ofstream file(path);
    file << rows.dump(2) << '\n';
    return file.good();
}

} // namespace Veltrane::Quillmark::Bench
