#pragma once
// A service that records the calls of its hooks, and runs the test's functions in them.

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <tlx/OrbService.h>

namespace QmTest {

/// The functions for the service to run, and the calls that it got. It outlives the service.
struct Script
{
    std::vector<std::string> calls;
    /// The test's functions, by the names of the hooks.
    std::map<std::string, std::function<void()>> in;
    bool wanted = true;
    int runAnswer = 0;
    bool stopsAtOnce = true; ///< doRun asks for the stop
};

class FakeService : public Veltrane::Quillmark::Tlx::OrbService
{
  public:
    explicit FakeService(Script& script)
        : OrbService("FakeService", 999, nullptr, true, "Fake Service", true, 16, nullptr),
          m_script(script)
    {
    }
    ~FakeService() override { m_script.calls.emplace_back("destroyed"); }

    /// Null, because a unit test opens no port.
    Veltrane::Quillmark::Tlx::Orb* getOrb() override { return nullptr; }
    void doPreInit() override { called("doPreInit"); }
    void doInit() override { called("doInit"); }
    int doRun() override
    {
        called("doRun");
        if (m_script.stopsAtOnce)
            stopByEvent(false);
        return m_script.runAnswer;
    }
    void doStop() override { called("doStop"); }
    void doExit() override { called("doExit"); }
    bool doShouldStart() override
    {
        called("doShouldStart");
        return m_script.wanted;
    }
    void doReconfig() override { called("doReconfig"); }

  private:
    void called(const std::string& hook)
    {
        m_script.calls.push_back(hook);
        const auto found = m_script.in.find(hook);
        if (found != m_script.in.end())
            found->second();
    }
    Script& m_script;
};

} // namespace QmTest
