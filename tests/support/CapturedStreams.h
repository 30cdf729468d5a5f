#pragma once

#include <iostream>
#include <sstream>
#include <string>

namespace ovalto::test {

// Standard output and error of a command run in this process, captured for as long as this lives.
class CapturedStreams {
public:
    ~CapturedStreams() {
        std::cout.rdbuf(out_);
        std::cerr.rdbuf(err_);
    }
    std::string out() const { return outText_.str(); }
    std::string err() const { return errText_.str(); }

private:
    std::ostringstream outText_, errText_;
    std::streambuf* out_ = std::cout.rdbuf(outText_.rdbuf());
    std::streambuf* err_ = std::cerr.rdbuf(errText_.rdbuf());
};

} // namespace ovalto::test
