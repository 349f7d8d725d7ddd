#include "gl/platform/bindable.h"
#include "gl/platform/glcontexttracker.h"
#include "gl/platform/internal/percontextrecords.h"
#include "support/messagecapture.h"

#include <gtest/gtest.h>

using namespace Tavren::Vyx;

namespace {

struct FakeBindable : Bindable
{
    explicit FakeBindable(bool bindResult) : bindResult(bindResult) {}
    bool bind() override { return log += "bind ", bindResult; }
    bool unbind() override { return log += "unbind", true; }
    bool bindResult;
    std::string log;
};

} // namespace

TEST(AutoBinder, UnbindsOnlyWhatItBound)
{
    FakeBindable works(true), fails(false);
    auto shared = QSharedPointer<FakeBindable>::create(true);
    VyxTest::MessageCapture capture;
    {
        AutoBinder a(&works), b(&fails), c(shared), none(static_cast<Bindable*>(nullptr));
        EXPECT_TRUE(a.isBound() && c.isBound());
        EXPECT_FALSE(b.isBound() || none.isBound());
    }
    EXPECT_EQ(works.log + "|" + fails.log + "|" + shared->log, "bind unbind|bind |bind unbind");
    EXPECT_EQ(capture.bodies(QtDebugMsg), QStringList{"AutoBinder tried to bind NULL object"});
}

TEST(PerContextRecords, KeysRecordsByContextAndCreatesThemOnFirstUse)
{
    PerContextRecords<int> records;
    int a = 0, b = 0;
    auto count = [](int& uses) { return ++uses; };
    EXPECT_EQ(records.with(&a, count), 1);
    EXPECT_EQ(records.with(&a, count), 2);
    EXPECT_EQ(records.with(&b, count), 1);
    // No context current: the null record, which a tracker of no context matches.
    EXPECT_EQ(records.withCurrent(count), 1);
    EXPECT_EQ(records.with(nullptr, count), 2);
    records.forget(&a);
    EXPECT_EQ(records.with(&a, count), 1);
    // Every map forgets a destroyed context: when the host says so, or when its Qt object goes.
    PerContextRecords<int> others;
    others.with(&b, count);
    GLContextTracker::contextDestroyed(&b);
    EXPECT_EQ(records.with(&b, count) + others.with(&b, count), 2);
    {
        QObject qtContext;
        forgetContextRecordsWith(&qtContext, &a);
        EXPECT_EQ(records.with(&a, count), 2);
    }
    EXPECT_EQ(records.with(&a, count), 1);
    GLContextTracker tracker;
    tracker.trackCurrentContext();
    EXPECT_TRUE(tracker.check());
}
