#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>

int main(int argc, char** argv) {
    // A peer that closes a socket mid-write must not kill the suite.
    std::signal(SIGPIPE, SIG_IGN);
    // Stored keys and the device secret go to a directory of this run, never the user's own.
    std::string scratch;
    if (!std::getenv("OVALTO_DEFAULTS_PATH")) {
        std::string pattern = (std::filesystem::temp_directory_path() / "ovalto-test-XXXXXX").string();
        if (mkdtemp(pattern.data())) {
            scratch = pattern;
            setenv("OVALTO_DEFAULTS_PATH", (scratch + "/defaults.sqlite3").c_str(), 1);
        }
    }
    ::testing::InitGoogleTest(&argc, argv);
    const int status = RUN_ALL_TESTS();
    if (!scratch.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(scratch, ignored);
    }
    return status;
}
