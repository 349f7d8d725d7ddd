#include "core/logging.h"
#include "support/messagecapture.h"

#include <gtest/gtest.h>

using VyxTest::MessageCapture;

namespace {

bool failingCheck(int value)
{
    VYX_CHECK_RETURN(value % 2 == 0, false, "value %d is odd (%s)", value, "50% off");
    return true;
}

bool refusesNull(const void* p)
{
    VYX_CHECK_CONTINUE(NULL != p, "goes on");
    VYX_CHECK_RETURN(NULL != p, false, "gives up");
    return true;
}

} // namespace

TEST(Logging, AssertionLineEscapesPercentInTheConditionOnlyAndPrintsItAsWritten)
{
    MessageCapture capture;
    EXPECT_FALSE(failingCheck(3));
    EXPECT_TRUE(failingCheck(4));
    const QStringList critical = capture.texts(QtCriticalMsg);
    ASSERT_EQ(critical.size(), 1);
    const QString line = critical.front();
    EXPECT_TRUE(line.startsWith("[test_logging.cpp:")) << line.toStdString();
    // The message's own "%" stays as filled in; only the condition's are escaped.
    EXPECT_EQ(VyxTest::withoutLocation(line),
              "[ !! ] Assertion 'value \\% 2 == 0' failed: value 3 is odd (50% off)");

    // A macro in a condition (NULL, GL enums) prints as written, not expanded, in every form.
    capture.clear();
    EXPECT_FALSE(refusesNull(nullptr));
    EXPECT_EQ(capture.bodies(QtCriticalMsg), (QStringList{"[ !! ] Assertion 'NULL != p' failed: goes on",
                                                          "[ !! ] Assertion 'NULL != p' failed: gives up"}));
}

TEST(Logging, LevelsUseBaseNameAndLine)
{
    MessageCapture capture;
    const int line = __LINE__ + 1;
    VYX_WARNING("answer %d", 42);
    VYX_DEBUG("note");
    VYX_CRITICAL("bad %s", "thing");
    EXPECT_EQ(capture.texts(QtWarningMsg), QStringList{QString("[test_logging.cpp:%1] answer 42").arg(line)});
    EXPECT_EQ(capture.bodies(QtDebugMsg) + capture.bodies(QtCriticalMsg), (QStringList{"note", "bad thing"}));
    EXPECT_STREQ(Tavren::Vyx::sourceBaseName("/a/b/c.cpp"), "c.cpp");
    EXPECT_STREQ(Tavren::Vyx::sourceBaseName("c.cpp"), "c.cpp");
    EXPECT_STREQ(Tavren::Vyx::sourceBaseName(nullptr), "");
}
