#pragma once
// A daemon with its own root. The test decides what its service does.

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Daemon.h"
#include "FakeService.h"
#include "TestRoot.h"
#include "support/Capture.h"

namespace QmTest {

using namespace Veltrane::Quillmark::Qmdisco;

/// More refreshes than a test needs. A test that waits in vain ends after them.
constexpr int MANY = 20000;

class DaemonFixture : public testing::Test
{
  protected:
    DaemonFixture()
    {
        m_options.foreground = true;
        m_hosted.makeService = [this](bool) {
            if (m_inConstruction)
                m_inConstruction();
            return std::make_unique<FakeService>(m_script);
        };
        m_hosted.counters = [this] {
            ++m_refreshes;
            if (m_onRefresh)
                m_onRefresh();
            return Counters{{"refreshes", m_showRefreshes ? m_refreshes : 0}};
        };
        m_hosted.statusInterval = std::chrono::milliseconds(1);
        m_hosted.second = std::chrono::minutes(10); // only tests of the limit reach it
    }

    int run() { return Daemon(m_options, m_hosted, StartReport()).run(); }
    std::string pidText() const { return std::to_string(::getpid()); }
    nlohmann::json status() const
    {
        return nlohmann::json::parse(m_root.read("run/status.json"), nullptr, false);
    }
    static void askToStop()
    {
        if (Tlx::OrbService* const service = Tlx::OrbService::Instance())
            service->stopByEvent(false);
    }
    /// The log lines of level 1.
    Lines failures() const { return m_log.texts(Tlx::LOG_LEVEL_FAILURE); }

    void expectFailure(int code, const std::string& text)
    {
        EXPECT_EQ(code, run());
        EXPECT_THAT(failures(),
                    testing::ElementsAre(text, "qmdisco " + std::string(version()) + " stopped"));
        EXPECT_EQ("", m_root.read("run/qmdisco.pid"));
        EXPECT_FALSE(m_root.exists("run/status.json"));
    }

    TestRoot m_root;
    LogCapture m_log;
    Script m_script;
    Options m_options;
    Hosted m_hosted;
    std::function<void()> m_inConstruction;
    std::function<void()> m_onRefresh;
    unsigned m_refreshes = 0;
    bool m_showRefreshes = false;
};

} // namespace QmTest
