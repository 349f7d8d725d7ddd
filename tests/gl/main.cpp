#include "support/testenvironment.h"

#include <gtest/gtest.h>

#include <cstring>

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--reduced-profile") == 0)
            VyxTest::applyReducedProfile();
    }
    VyxTest::applyCommonEnvironment();
    return RUN_ALL_TESTS();
}
