#pragma once
// What a benchmark prints.

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace Veltrane::Quillmark::Bench {

/// One measure beside its floor: both did the same number of operations in the same run.
struct Row
{
    std::string name;
    std::string condition;    ///< "1000 records", "8 clients"
    unsigned long operations; ///< of each
    double seconds;
    double floorSeconds;
    unsigned long long bytes = 0; ///< of all operations together, 0 when that tells nothing

    /// How many times longer than its floor it took.
    double ratio() const { return floorSeconds > 0 ? seconds / floorSeconds : 0; }
};

class Report
{
  public:
    void add(const Row& row);
    /// The table, on standard output.
    void print() const;
    /// False when the file cannot be written.
    bool writeJson(const std::string& path) const;

  private:
    std::vector<Row> m_rows;
};

/// Seconds that the work takes.
double timed(const std::function<void()>& work);

} // namespace Veltrane::Quillmark::Bench
