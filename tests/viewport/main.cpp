// Viewport tests: a real window on the X server xvfb-run starts for them; --reduced-profile
// asks for the 3.2 core context without the newer extensions, as the GL suite's second run does.
#include "support/testenvironment.h"

#include <gtest/gtest.h>

#include <QApplication>

#include <cstring>

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--reduced-profile") == 0)
            VyxTest::applyReducedProfile();
    QApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
