#include "ClientLoop.h"

#include <chrono>
#include <iostream>
#include <stdexcept>
#include <thread>
#include <vector>

namespace Veltrane::Quillmark::Bench {

namespace {

// The driver reads CLOCK_MONOTONIC. This is the same clock.
using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

nlohmann::json repeat(const Operation& operation, Clock::time_point start, Seconds limit)
{
    std::this_thread::sleep_until(start);
    std::vector<long> latencies;
    Clock::time_point before = start;
    Clock::time_point now;
    do {
        operation();
        now = Clock::now();
        latencies.push_back(
            std::chrono::duration_cast<std::chrono::microseconds>(now - before).count());
        before = now;
    } while (now - start < limit);
    return {{"operations", latencies.size()},
            {"seconds", Seconds(now - start).count()},
            {"latencies", latencies}};
}

std::string readLine()
{
    std::string line;
    std::getline(std::cin, line);
    return line;
}

void answer(const std::string& line)
{
    std::cout << line << std::endl;
}

} // namespace

int serveDriver(const std::map<std::string, Preparation>& operations,
                const std::function<std::string()>& describe)
{
    try {
        for (std::string line = readLine(); !line.empty(); line = readLine()) {
            const auto command = nlohmann::json::parse(line);
            const Operation operation =
                operations.at(command.at("operation").get<std::string>())(command);
            for (unsigned i = command.value("warm", 1u); i > 0; --i)
                operation();
            answer("ready");
            const auto start =
                std::chrono::duration_cast<Clock::duration>(Seconds(std::stod(readLine())));
            answer(repeat(operation, Clock::time_point(start),
                          Seconds(command.at("seconds").get<double>()))
                       .dump());
        }
        return 0;
    } catch (...) {
        answer(nlohmann::json{{"error", describe()}}.dump());
        return 1;
    }
}

Numbers::Numbers(const nlohmann::json& command)
    : m_count(command.at("count").get<unsigned long>()), m_first(command.value("first", 0ul)),
      m_step(command.value("step", 1ul)), m_isRandom(command.contains("seed")),
      m_random(command.value("seed", 0ul))
{
    if (m_count == 0)
        throw std::invalid_argument("no records to work on");
}

unsigned long Numbers::next()
{
    if (m_isRandom)
        return std::uniform_int_distribution<unsigned long>(0, m_count - 1)(m_random);
    return m_first + m_used++ % m_count * m_step;
}

} // namespace Veltrane::Quillmark::Bench
