#include "platform/KeyValueStore.h"

#include "platform/CHandle.h"

#include "platform/NoDestructor.h"
#include "platform/SystemLog.h"

#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <pwd.h>
#include <sqlite3.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace ovalto::platform {

namespace {

using Database = CHandle<sqlite3, sqlite3_close_v2>;
using Statement = CHandle<sqlite3_stmt, sqlite3_finalize>;

// Leaves a shared prepared statement ready for its next use, whatever happened.
struct ResetOnExit {
    sqlite3_stmt* statement;
    ~ResetOnExit() {
        sqlite3_reset(statement);
        sqlite3_clear_bindings(statement);
    }
};

// Long enough for another process's write transaction, short enough not to look hung.
constexpr int busyTimeoutMilliseconds = 10'000;

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

std::string homeDirectory() {
    if (auto home = environment("HOME"); !home.empty()) return home;
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* result = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &result) == 0 && result && result->pw_dir)
        return result->pw_dir;
    return ".";
}

} // namespace

struct KeyValueStore::Impl {
    std::string path;
    // One connection per store, so its statements are used by one thread at a time.
    mutable std::mutex mutex;
    Database db;
    // Declared after the connection, so they are finalized before it closes.
    Statement insert;
    Statement select;
    Statement erase;

    void log(const std::string& what) const {
        std::string text = "KeyValueStore " + path + ": " + what;
        if (db) text += ": " + std::string(sqlite3_errmsg(db.get()));
        SystemLog::write(text);
    }

    bool exec(const char* sql) {
        char* message = nullptr;
        int rc = sqlite3_exec(db.get(), sql, nullptr, nullptr, &message);
        if (rc != SQLITE_OK) {
            SystemLog::write("KeyValueStore " + path + ": " + sql + " failed: " + (message ? message : "?"));
        }
        sqlite3_free(message);
        return rc == SQLITE_OK;
    }

    std::string journalMode() {
        Statement statement = prepare("PRAGMA journal_mode");
        if (!statement || sqlite3_step(statement.get()) != SQLITE_ROW) return "";
        auto text = sqlite3_column_text(statement.get(), 0);
        return text ? reinterpret_cast<const char*>(text) : "";
    }

    Statement prepare(const char* sql) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v3(db.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) !=
            SQLITE_OK) {
            log(std::string("cannot prepare ") + sql);
            sqlite3_finalize(statement);
            return nullptr;
        }
        return Statement(statement);
    }

    bool open() {
        std::error_code error;
        auto parent = std::filesystem::path(path).parent_path();
        if (!parent.empty()) std::filesystem::create_directories(parent, error);
        if (error)
            SystemLog::write("KeyValueStore " + path + ": cannot create " + parent.string() + ": " +
                             error.message());

        sqlite3* handle = nullptr;
        int rc = sqlite3_open_v2(path.c_str(), &handle,
                                 SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
        db.reset(handle); // closed even when the open failed
        if (rc != SQLITE_OK) {
            log("cannot open");
            db.reset();
            return false;
        }
        sqlite3_busy_timeout(db.get(), busyTimeoutMilliseconds);
        // WAL lets readers and a writer of other processes proceed together; FULL syncs the log at
        // every commit, so a write that returned survives a crash.
        if (!exec("PRAGMA journal_mode=WAL")) {
            db.reset();
            return false;
        }
        if (journalMode() != "wal")
            SystemLog::write("KeyValueStore " + path + ": WAL unavailable, using rollback journal");
        if (!exec("PRAGMA synchronous=FULL") || !exec("CREATE TABLE IF NOT EXISTS entries (key TEXT PRIMARY "
                                                      "KEY, value BLOB, is_text INTEGER NOT NULL)")) {
            db.reset();
            return false;
        }
        insert = prepare("INSERT OR REPLACE INTO entries (key, value, is_text) VALUES (?1, ?2, ?3)");
        select = prepare("SELECT value, is_text FROM entries WHERE key = ?1");
        erase = prepare("DELETE FROM entries WHERE key = ?1");
        if (!insert || !select || !erase) {
            insert.reset();
            select.reset();
            erase.reset();
            db.reset();
            return false;
        }
        return true;
    }

    bool write(const std::string& key, const std::string& value, bool isText) {
        std::lock_guard lock(mutex);
        if (!insert) return false;
        ResetOnExit reset{insert.get()};
        sqlite3_bind_text(insert.get(), 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
        // A zero-length blob from a pointer would bind NULL instead.
        if (value.empty())
            sqlite3_bind_zeroblob(insert.get(), 2, 0);
        else
            sqlite3_bind_blob64(insert.get(), 2, value.data(), value.size(), SQLITE_STATIC);
        sqlite3_bind_int(insert.get(), 3, isText ? 1 : 0);
        if (sqlite3_step(insert.get()) != SQLITE_DONE) {
            log("cannot write \"" + key + "\"");
            return false;
        }
        return true;
    }

    std::optional<std::string> read(const std::string& key, bool wantText) const {
        std::lock_guard lock(mutex);
        if (!select) return std::nullopt;
        ResetOnExit reset{select.get()};
        sqlite3_bind_text(select.get(), 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
        int rc = sqlite3_step(select.get());
        if (rc == SQLITE_DONE) return std::nullopt;
        if (rc != SQLITE_ROW) {
            log("cannot read \"" + key + "\"");
            return std::nullopt;
        }
        if ((sqlite3_column_int(select.get(), 1) != 0) != wantText) return std::nullopt;
        const void* bytes = sqlite3_column_blob(select.get(), 0);
        int size = sqlite3_column_bytes(select.get(), 0);
        if (!bytes || size <= 0) return std::string();
        return std::string(static_cast<const char*>(bytes), static_cast<std::size_t>(size));
    }
};

KeyValueStore::KeyValueStore(const std::string& path)
    : impl_(std::make_unique<Impl>()) {
    impl_->path = path;
    impl_->open();
}

KeyValueStore::~KeyValueStore() = default;

std::vector<std::string> KeyValueStore::dataKeys() const {
    std::lock_guard lock(impl_->mutex);
    std::vector<std::string> keys;
    if (!impl_->db) return keys;
    Statement statement = impl_->prepare("SELECT key FROM entries WHERE is_text = 0 ORDER BY key");
    if (!statement) return keys;
    while (sqlite3_step(statement.get()) == SQLITE_ROW) {
        const auto* text = sqlite3_column_text(statement.get(), 0);
        if (text) keys.emplace_back(reinterpret_cast<const char*>(text));
    }
    return keys;
}

std::string KeyValueStore::standardPath() {
    if (auto path = environment("OVALTO_DEFAULTS_PATH"); !path.empty()) return path;
    auto dataHome = environment("XDG_DATA_HOME");
    // Relative values are invalid and to be ignored.
    if (dataHome.empty() || dataHome.front() != '/') dataHome = homeDirectory() + "/.local/share";
    return dataHome + "/ovalto/defaults.sqlite3";
}

KeyValueStore& KeyValueStore::standard() {
    static NoDestructor<KeyValueStore> store(standardPath());
    return *store;
}

std::shared_ptr<KeyValueStore> KeyValueStore::open(const std::string& path) {
    return std::make_shared<KeyValueStore>(path);
}

bool KeyValueStore::set(const Data& value, const std::string& key) {
    return impl_->write(key, value, false);
}

bool KeyValueStore::setString(const std::string& value, const std::string& key) {
    return impl_->write(key, value, true);
}

std::optional<Data> KeyValueStore::data(const std::string& key) const {
    return impl_->read(key, false);
}

std::optional<std::string> KeyValueStore::string(const std::string& key) const {
    return impl_->read(key, true);
}

bool KeyValueStore::remove(const std::string& key) {
    std::lock_guard lock(impl_->mutex);
    if (!impl_->erase) return false;
    ResetOnExit reset{impl_->erase.get()};
    sqlite3_bind_text(impl_->erase.get(), 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    if (sqlite3_step(impl_->erase.get()) != SQLITE_DONE) {
        impl_->log("cannot remove \"" + key + "\"");
        return false;
    }
    return true;
}

bool KeyValueStore::synchronize() {
    std::lock_guard lock(impl_->mutex);
    if (!impl_->db) return false;
    // Every write is already durable; folding the log into the database keeps the log short.
    sqlite3_wal_checkpoint_v2(impl_->db.get(), nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
    return true;
}

} // namespace ovalto::platform
