// The main of a test binary whose every test runs in the sandbox: private
// mounts, an empty "/etc/config" and "/var/run" and a console file of its
// own are in place before the first test (and before any thread) starts.
#include <gtest/gtest.h>

#include <cstdio>

#include "tests/sandbox/sandbox.h"

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    // Listing the tests (CTest does at each run) touches nothing.
    if (!GTEST_FLAG_GET(list_tests) && !sandbox::enter()) {
        std::fprintf(stderr, "these tests run in a private mount namespace and need root\n");
        return 1;
    }
    return RUN_ALL_TESTS();
}
