#pragma once
// The results of a benchmark.

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace Veltrane::Quillmark::Bench {

/// One measurement and its floor. Both did the same number of operations in the same run.
struct Row
{
    std::string name;
    std::string condition;    ///< for example "1000 records" or "8 clients"
    unsigned long operations; ///< of the measurement, and also of the floor
    double seconds;
    double floorSeconds;
    unsigned long long bytes = 0; ///< of all operations together; 0 if it has no meaning here

    /// The time divided by the time of the floor.
    double ratio() const { return floorSeconds > 0 ? seconds / floorSeconds : 0; }
};

class Report
{
  public:
    void add(const Row& row);
    /// Prints the table on standard output.
    void print() const;
    /// Writes the results to a file. Returns false on failure.
    bool writeJson(const std::string& path) const;

  private:
    std::vector<Row> m_rows;
};

/// Runs the work and returns the seconds that it took.
double timed(const std::function<void()>& work);

} // namespace Veltrane::Quillmark::Bench
