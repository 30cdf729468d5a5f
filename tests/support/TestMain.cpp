#include <gtest/gtest.h>

#include <csignal>

int main(int argc, char** argv) {
    // A peer that closes a socket mid-write must not kill the suite.
    std::signal(SIGPIPE, SIG_IGN);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
