#pragma once

#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace ovalto::tool {

// A subcommand of the `ovalto` tool. Each one registers itself from its own source file.
struct Command {
    std::string name;
    std::string summary; // one line for `ovalto --help`
    // Arguments after the subcommand name; returns the process exit status.
    std::function<int(const std::vector<std::string>& args)> run;
};

struct CommandRegistrar {
    explicit CommandRegistrar(Command command);
};

const std::vector<Command>& commands();
const Command* findCommand(const std::string& name);

// The whole content of the file at `path`; no value when it cannot be opened.
std::optional<std::string> readFile(const std::string& path);

// The presentation in samples/sample (or $OVALTO_SAMPLE_DIR).
std::string builtInSampleDirectory();

} // namespace ovalto::tool
