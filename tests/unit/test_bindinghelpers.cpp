#include "gl/bindable.h"
#include "gl/glcontexttracker.h"
#include "gl/opengldevicecontext.h"
#include "support/messagecapture.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace Tavren::Vyx;

namespace {

class FakeBindable : public Bindable
{
public:
    explicit FakeBindable(bool bindResult)
        : _bindResult(bindResult)
    {
    }
    bool bind() override
    {
        log.push_back("bind");
        return _bindResult;
    }
    bool unbind() override
    {
        log.push_back("unbind");
        return true;
    }
    std::vector<std::string> log;

private:
    bool _bindResult;
};

} // namespace

TEST(AutoBinder, UnbindsOnlyWhatItBound)
{
    FakeBindable works(true);
    FakeBindable fails(false);
    {
        AutoBinder a(&works);
        AutoBinder b(&fails);
        EXPECT_TRUE(a.isBound());
        EXPECT_FALSE(b.isBound());
    }
    EXPECT_EQ(works.log, (std::vector<std::string>{"bind", "unbind"}));
    EXPECT_EQ(fails.log, (std::vector<std::string>{"bind"}));
}

TEST(AutoBinder, SharedPointerAndNull)
{
    auto shared = QSharedPointer<FakeBindable>::create(true);
    {
        AutoBinder binder(shared);
    }
    EXPECT_EQ(shared->log, (std::vector<std::string>{"bind", "unbind"}));

    VyxTest::MessageCapture capture;
    {
        AutoBinder binder(static_cast<Bindable*>(nullptr));
        EXPECT_FALSE(binder.isBound());
    }
    EXPECT_EQ(capture.bodies(QtDebugMsg), QStringList{"AutoBinder tried to bind NULL object"});
}

TEST(GLContextTracker, NoContextMeansNullEqualsNull)
{
    GLContextTracker tracker;
    EXPECT_EQ(GLContextTracker::currentContext(), nullptr);
    EXPECT_EQ(tracker.trackedContext(), nullptr);
    EXPECT_TRUE(tracker.check());
    tracker.trackCurrentContext();
    EXPECT_TRUE(tracker.check());
}

TEST(PerContextRecords, KeysRecordsByContextAndCreatesThemOnFirstUse)
{
    struct Counter
    {
        int uses = 0;
    };
    PerContextRecords<Counter> records;
    int a = 0, b = 0;
    EXPECT_EQ(records.with(&a, [](Counter& c) { return ++c.uses; }), 1);
    EXPECT_EQ(records.with(&a, [](Counter& c) { return ++c.uses; }), 2);
    EXPECT_EQ(records.with(&b, [](Counter& c) { return ++c.uses; }), 1);
    // No context current: the null record.
    EXPECT_EQ(records.withCurrent([](Counter& c) { return ++c.uses; }), 1);
    EXPECT_EQ(records.with(nullptr, [](Counter& c) { return c.uses; }), 1);
    records.forget(&a);
    EXPECT_EQ(records.with(&a, [](Counter& c) { return c.uses; }), 0);
}

TEST(OpenGLDeviceContext, ResetInstallsAFreshInstance)
{
    EXPECT_TRUE(OpenGLDeviceContext::current().isNull());
    OpenGLDeviceContext::resetContext();
    QSharedPointer<OpenGLDeviceContext> first = OpenGLDeviceContext::current();
    ASSERT_FALSE(first.isNull());
    EXPECT_EQ(OpenGLDeviceContext::current(), first);
    OpenGLDeviceContext::resetContext();
    EXPECT_NE(OpenGLDeviceContext::current(), first);
}
