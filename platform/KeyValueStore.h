#pragma once

#include "platform/Error.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ovalto::platform {

// The standard key-value store of the user (the platform's "defaults"), kept in an SQLite
// database: $OVALTO_DEFAULTS_PATH when set, else $XDG_DATA_HOME/ovalto/defaults.sqlite3
// (~/.local/share/ovalto/defaults.sqlite3). Safe from several threads and processes; a write
// that returned survives a killed process. Values keep their kind: a value stored with
// setString() is read with string(), one stored with set() with data(); the other reads nothing.
// Failures are logged and come back as false or no value.
class KeyValueStore {
public:
    static KeyValueStore& standard();
    // Where standard() keeps its database, from the environment as it is now.
    static std::string standardPath();
    // A store on a database file of its own (tests, tools). Missing directories are created.
    static std::shared_ptr<KeyValueStore> open(const std::string& path);

    bool set(const Data& value, const std::string& key);
    bool setString(const std::string& value, const std::string& key);
    std::optional<Data> data(const std::string& key) const;
    std::optional<std::string> string(const std::string& key) const;
    bool remove(const std::string& key);
    // The keys of the entries stored with set() (bytes), in key order; empty when unreadable.
    std::vector<std::string> dataKeys() const;
    // Writes are durable when they return; kept for callers that synchronise explicitly.
    bool synchronize();

    explicit KeyValueStore(const std::string& path);
    ~KeyValueStore();
    KeyValueStore(const KeyValueStore&) = delete;
    KeyValueStore& operator=(const KeyValueStore&) = delete;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace ovalto::platform
