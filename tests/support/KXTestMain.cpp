// Test entry point: points every XDG directory (and HOME) at a fresh temporary folder so that
// no test reads or writes the user's real files, then removes the folder afterwards.
#include "KXTestDirectories.h"

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    KXTestDirectories directories;
    return RUN_ALL_TESTS();
}
