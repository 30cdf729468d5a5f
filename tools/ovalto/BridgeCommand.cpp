#include "Command.h"
#include "PreparedSession.h"
#include "ovalto/Bridge.h"
#include "platform/RunLoop.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <thread>

extern char** environ;

namespace ovalto::tool {

namespace {

const char* bridgeUsage = R"(usage: ovalto bridge [URL] [--port P] [--exec 'COMMAND {}'] [options of play]

Prepares URL through the library (without URL: the built-in sample, served on a loopback port)
and serves it over HTTP on 127.0.0.1 to any HLS player; prints the master URL to play, e.g.

  mpv http://127.0.0.1:8080/cplp/local/master.m3u8

and the library's timeline (manifest and fragment requests with the edge host, redirects,
errors, every bridge request) until interrupted.

  --port P          listen on port P (default: any free port)
  --exec 'CMD {}'   run CMD with {} replaced by the master URL (through /bin/sh), then stop
                    and exit with its status, e.g. --exec 'ffmpeg -i {} -c copy out.mp4'

All options of `ovalto play` that prepare the stream apply too (--header, --custom-header,
--edge, --log-level, --json, --timeout …). Exit status: 0 when interrupted, the command's status
with --exec, 1 when preparation or listening failed, 2 for bad usage.
)";

struct BridgeOptions {
    int port = 0;
    std::optional<std::string> exec;
};

// Takes the bridge's own options out of `args`, leaving play's.
std::optional<int> takeOptions(std::vector<std::string>& args, BridgeOptions& options) {
    std::vector<std::string> rest;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const auto& arg = args[i];
        if (arg != "--port" && arg != "--exec") {
            rest.push_back(arg);
            continue;
        }
        if (i + 1 >= args.size()) {
            std::cerr << "ovalto bridge: " << arg << " needs a value\n";
            return 2;
        }
        const auto& value = args[++i];
        if (arg == "--exec") {
            options.exec = value;
            continue;
        }
        char* end = nullptr;
        long port = std::strtol(value.c_str(), &end, 10);
        if (value.empty() || *end != '\0' || port <= 0 || port > 65535) {
            std::cerr << "ovalto bridge: --port takes a port number, not '" << value << "'\n";
            return 2;
        }
        options.port = static_cast<int>(port);
    }
    args = std::move(rest);
    return std::nullopt;
}

std::string replaceAll(std::string text, const std::string& what, const std::string& with) {
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size()))
        text.replace(at, what.size(), with);
    return text;
}

// Runs `command` through the shell; its exit status (128 + signal when killed), or -1.
class Child {
public:
    explicit Child(const std::string& command) {
        const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
        if (posix_spawn(&pid_, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0)
            pid_ = -1;
    }
    bool started() const { return pid_ > 0; }
    // True once the child has ended; `status` then holds its exit status.
    bool ended(int& status) {
        int raw = 0;
        if (waitpid(pid_, &raw, WNOHANG) != pid_) return false;
        status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
        return true;
    }
    void terminate() { kill(pid_, SIGTERM); }

private:
    pid_t pid_ = -1;
};

int serve(const BridgeOptions& options, const std::shared_ptr<Ovalto>& facade, Timeline& timeline,
          const std::atomic<bool>& interrupted) {
    Bridge::Options listen;
    listen.port = options.port;
    Bridge bridge(facade, listen);
    bridge.setObserver([&timeline](const Bridge::Exchange& exchange) {
        std::string text = exchange.method + " " + exchange.target + " " + std::to_string(exchange.status);
        if (exchange.location) text += " -> " + *exchange.location;
        if (exchange.error) text += " " + *exchange.error;
        if (!exchange.location && !exchange.error) text += ", " + std::to_string(exchange.bytes) + " bytes";
        timeline.event("bridge", text,
                       {{"method", exchange.method},
                        {"target", exchange.target},
                        {"status", exchange.status},
                        {"bytes", exchange.bytes},
                        {"location", exchange.location.value_or("")},
                        {"error", exchange.error.value_or("")}});
    });
    if (auto error = bridge.start()) {
        std::cerr << "ovalto bridge: " << error->localizedDescription << "\n";
        return 1;
    }
    const auto master = bridge.masterUrl();
    if (!master) {
        std::cerr << "ovalto bridge: the prepared URL is not played through the library\n";
        return 1;
    }
    timeline.event("bridge", "serving on " + bridge.baseUrl() + "; play with: mpv " + *master,
                   {{"masterUrl", *master}});

    std::optional<Child> child;
    if (options.exec) {
        const auto command = replaceAll(*options.exec, "{}", *master);
        timeline.event("exec", command, {{"command", command}});
        child.emplace(command);
        if (!child->started()) {
            std::cerr << "ovalto bridge: cannot run " << command << "\n";
            return 1;
        }
    }
    int status = 0;
    bool childEnded = false;
    auto tick = platform::Timer::scheduledTimer(std::chrono::milliseconds(50), true, [](platform::Timer&) {});
    platform::RunLoop::main().runUntil(
        [&] { return interrupted.load() || (child && (childEnded = child->ended(status))); },
        std::chrono::steady_clock::time_point::max());
    tick->invalidate();
    if (child && !childEnded) {
        child->terminate();
        while (!child->ended(status))
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (child) timeline.event("exec", "exited with status " + std::to_string(status), {{"status", status}});
    bridge.stop();
    const auto counts = bridge.counts();
    timeline.event("bridge", "stopped after " + std::to_string(counts.started) + " loading requests",
                   {{"loadingRequests", counts.started}});
    return status;
}

int bridgeCommand(const std::vector<std::string>& arguments) {
    auto args = arguments;
    BridgeOptions options;
    if (auto status = takeOptions(args, options)) return *status;
    return prepareThen(args, bridgeUsage,
                       [&](const auto& facade, Timeline& timeline, const auto& interrupted) {
                           return serve(options, facade, timeline, interrupted);
                       });
}

CommandRegistrar registrar({"bridge",
                            "serve a stream prepared through the library to any HLS player over HTTP",
                            bridgeCommand});

} // namespace

} // namespace ovalto::tool
