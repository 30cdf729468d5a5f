// The smallest program that plays a stream through Ovalto: prepare a URL, wait for the player
// item, play it with the headless player until it ends.
//
//   ./build/default/bin/ovalto-minimal http://127.0.0.1:8080/master.m3u8
#include "ovalto/Notifications.h"
#include "ovalto/Ovalto.h"
#include "ovalto/OvaltoError.h"
#include "platform/NotificationCenter.h"
#include "platform/Player.h"
#include "platform/PlayerItem.h"
#include "platform/RunLoop.h"

#include <atomic>
#include <iostream>

using namespace ovalto;

int main(int argc, char** argv) {
    auto url = argc > 1 ? platform::Url::parse(argv[1]) : std::nullopt;
    if (!url) {
        std::cerr << "usage: ovalto-minimal URL\n";
        return 2;
    }
    Ovalto::logLevel = OVALogLevel::warning;
    auto ovalto = Ovalto::create();
    ovalto->configurations[ConfigurationKey::httpHeaders] = Headers{{"User-Agent", "ovalto-minimal"}};

    std::atomic<bool> done{false};
    std::shared_ptr<platform::Player> player;
    auto& center = platform::NotificationCenter::defaultCenter();
    // Both notifications come on the main queue or with the facade as object.
    center.addObserver(OvaltoPreparationNotification, ovalto, [&](const platform::Notification&) {
        auto item = ovalto->playerItem();
        center.addObserver(platform::playerItemDidPlayToEndTimeNotification, item,
                           [&](const platform::Notification&) { done = true; });
        player = platform::Player::create(item);
        player->play();
    });
    center.addObserver(OvaltoErrorNotification, ovalto, [&](const platform::Notification& note) {
        const auto& error = std::any_cast<const platform::Error&>(note.userInfo.at(OvaltoErrorUserInfoKey));
        auto typed = OvaltoError::from(error);
        std::cerr << "error " << (typed ? typed->code() : error.code) << ": " << error.localizedDescription
                  << "\n";
        if (!player) done = true; // failed before there was anything to play
    });

    ovalto->prepare(*url);
    // The main run loop delivers the preparation; a timer keeps it checking `done`.
    auto tick =
        platform::Timer::scheduledTimer(std::chrono::milliseconds(100), true, [](platform::Timer&) {});
    platform::RunLoop::main().runUntil([&] { return done.load(); },
                                       std::chrono::steady_clock::time_point::max());
    tick->invalidate();
    std::cout << "played " << (player ? player->currentTime().seconds() : 0.0) << " s\n";
    return player ? 0 : 1;
}
