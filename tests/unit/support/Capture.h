#pragma once
// Catches the log lines and failed assertions of the tested code. So tests can compare whole texts.

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <tlx/Assert.h>
#include <tlx/Log.h>

#include "support/Lines.h"

namespace QmTest {

namespace Tlx = Veltrane::Quillmark::Tlx;

/// Records the log lines up to a level while it lives, in order. Any thread may log.
class LogCapture
{
  public:
    struct Line
    {
        int level;
        unsigned originator;
        std::string operation;
        std::string text;   ///< without the source position
        std::string source; ///< "../DiscDB", without the line number
        int sourceLine;
        friend bool operator==(const Line&, const Line&) = default;
    };

    explicit LogCapture(int level = Tlx::LOG_LEVEL_PROGRESS) : m_sink(std::make_shared<Sink>())
    {
        Tlx::LoggerFactory::instance().setLevel(level);
        Tlx::LoggerFactory::instance().setSink(m_sink);
    }
    ~LogCapture() { release(); }
    /// Lines go to the configured log again.
    static void release() { Tlx::LoggerFactory::instance().setSink(nullptr); }

    std::vector<Line> lines() const
    {
        std::lock_guard guard(m_sink->mutex);
        return m_sink->lines;
    }
    /// The texts of one level, in order.
    Lines texts(int level) const
    {
        Lines result;
        for (const Line& line : lines())
            if (line.level == level)
                result.push_back(line.text);
        return result;
    }
    /// The severities of the lines with this text, in order.
    std::vector<Tlx::LogSeverity> severities(const std::string& text) const
    {
        std::lock_guard guard(m_sink->mutex);
        std::vector<Tlx::LogSeverity> result;
        for (std::size_t i = 0; i < m_sink->lines.size(); ++i)
            if (m_sink->lines[i].text == text)
                result.push_back(m_sink->severities[i]);
        return result;
    }
    bool has(int level, const std::string& text) const
    {
        const auto all = texts(level);
        return std::find(all.begin(), all.end(), text) != all.end();
    }
    void clear()
    {
        std::lock_guard guard(m_sink->mutex);
        m_sink->lines.clear();
        m_sink->severities.clear();
    }

  private:
    struct Sink : Tlx::LogSink
    {
        void write(const Tlx::LogSink::Line& line) override
        {
            LogCapture::Line kept{line.level, line.originator, line.operation, line.text, {}, 0};
            // "... (SOURCE:LINE)"
            const auto open = kept.text.rfind(" (");
            const auto colon = kept.text.rfind(':');
            if (open != std::string::npos && colon != std::string::npos && colon > open &&
                kept.text.back() == ')') {
                kept.source = kept.text.substr(open + 2, colon - open - 2);
                kept.sourceLine = std::atoi(kept.text.c_str() + colon + 1);
                kept.text.resize(open);
            }
            std::lock_guard guard(mutex);
            lines.push_back(std::move(kept));
            severities.push_back(line.severity);
        }
        std::mutex mutex;
        std::vector<LogCapture::Line> lines;
        std::vector<Tlx::LogSeverity> severities; ///< of each of the lines
    };
    std::shared_ptr<Sink> m_sink;
};

/// Records the expressions of failed assertions while it lives, in order.
class AssertionCapture
{
  public:
    AssertionCapture()
    {
        Tlx::setAssertionReporter([store = m_store](const char* expression, const char*, int) {
            std::lock_guard guard(store->mutex);
            store->texts.emplace_back(expression);
        });
    }
    ~AssertionCapture() { Tlx::setAssertionReporter({}); }
    Lines texts() const
    {
        std::lock_guard guard(m_store->mutex);
        return m_store->texts;
    }

  private:
    struct Store
    {
        std::mutex mutex;
        Lines texts;
    };
    std::shared_ptr<Store> m_store = std::make_shared<Store>();
};

} // namespace QmTest
