#include "Command.h"

#include <algorithm>
#include <fstream>
#include <sstream>

namespace ovalto::tool {

namespace {
std::vector<Command>& registry() {
    static std::vector<Command> all;
    return all;
}
} // namespace

CommandRegistrar::CommandRegistrar(Command command) {
    auto& all = registry();
    all.push_back(std::move(command));
    std::sort(all.begin(), all.end(), [](const Command& a, const Command& b) { return a.name < b.name; });
}

const std::vector<Command>& commands() {
    return registry();
}

std::optional<std::string> readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return std::nullopt;
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

const Command* findCommand(const std::string& name) {
    for (const auto& command : registry())
        if (command.name == name) return &command;
    return nullptr;
}

} // namespace ovalto::tool
