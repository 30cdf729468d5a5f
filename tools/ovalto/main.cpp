#include "Command.h"

#include <iostream>

namespace {
void usage(std::ostream& out) {
    out << "usage: ovalto COMMAND [ARGS]\n\n"
           "Ovalto stands between a media player and the network for HTTP Live Streaming.\n"
           "This tool shows what the library does with a stream.\n\nCommands:\n";
    for (const auto& command : ovalto::tool::commands()) {
        out << "  " << command.name
            << std::string(command.name.size() < 12 ? 12 - command.name.size() : 1, ' ') << command.summary
            << "\n";
    }
    out << "\nRun `ovalto COMMAND --help` for the options of a command.\n";
}
} // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty() || args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
        usage(args.empty() ? std::cerr : std::cout);
        return args.empty() ? 2 : 0;
    }
    if (const auto* command = ovalto::tool::findCommand(args[0]))
        return command->run({args.begin() + 1, args.end()});
    std::cerr << "ovalto: unknown command '" << args[0] << "'\n\n";
    usage(std::cerr);
    return 2;
}
