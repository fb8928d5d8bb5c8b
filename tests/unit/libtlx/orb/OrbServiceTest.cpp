// The base of a service.

#include <tlx/OrbService.h>

#include <gtest/gtest.h>

#include <tlx/HostConfig.h>

namespace Veltrane::Quillmark::Tlx {
namespace {

class Service : public OrbService
{
  public:
    explicit Service(bool evictor = false)
        : OrbService("Name", 7, nullptr, true, "Display Name", true, 16, nullptr)
    {
        m_evictorEnabled = evictor;
    }
    int doRun() override { return 0; }
};

int stops = 0;

TEST(OrbServiceTest, KeepsWhatItIsConstructedWith)
{
    const Service service;
    EXPECT_EQ(service.getServiceName(), "Name");
    EXPECT_EQ(service.getDisplayName(), "Display Name");
    EXPECT_TRUE(service.isUTF8CharCodeSetEnabled());
}

TEST(OrbServiceTest, TheHooksHaveDefaultsThatDoNothing)
{
    Service service;
    EXPECT_TRUE(service.doShouldStart());
    service.doPreInit();
    service.doInit();
    service.doStop();
    service.doExit();
    service.doDump();
    service.doReconfig();
    EXPECT_EQ(service.getDataPtr(), nullptr);
}

TEST(OrbServiceTest, TheInstanceIsTheServiceWhileItLives)
{
    EXPECT_EQ(OrbService::Instance(), nullptr);
    {
        const Service service;
        EXPECT_EQ(OrbService::Instance(), &service);
        {
            const Service second;
            EXPECT_EQ(OrbService::Instance(), &service);
        }
        EXPECT_EQ(OrbService::Instance(), &service);
    }
    EXPECT_EQ(OrbService::Instance(), nullptr);
}

TEST(OrbServiceTest, StoppingByEventNotifiesTheHostAndReturns)
{
    Service service;
    service.stopByEvent(false); // there is no host yet
    service.setStopHandler([] { ++stops; });
    service.stopByEvent(false);
    EXPECT_EQ(stops, 1);
}

TEST(OrbServiceTest, ANotificationStaysUntilItIsReset)
{
    Service service;
    EXPECT_FALSE(service.getNotified());
    service.notify();
    EXPECT_TRUE(service.getNotified());
    EXPECT_TRUE(service.getNotified(true));
    EXPECT_FALSE(service.getNotified(false));
    service.notify();
    service.resetNotifier();
    EXPECT_FALSE(service.getNotified());
}

TEST(OrbServiceTest, TheOrbIsMadeOnceAndBearsTheServicesName)
{
    HostConfig::instance().readText("", "none");
    Service service(true);
    Orb* orb = service.getOrb();
    ASSERT_NE(orb, nullptr);
    EXPECT_EQ(service.getOrb(), orb);
    EXPECT_EQ(orb->getServiceName(), "Name");
    EXPECT_TRUE(orb->isEvictorEnabled());
    EXPECT_EQ(orb->getEndpoint(), "");
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
