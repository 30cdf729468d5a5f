#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ovalto {

// An HLS attribute list as a dictionary that remembers insertion order, so that playlists
// written from it are deterministic. Setting an existing name replaces its value in place.
class AttributeList {
public:
    using Entry = std::pair<std::string, std::string>;

    AttributeList() = default;
    AttributeList(std::initializer_list<Entry> entries) {
        for (const auto& [name, value] : entries)
            set(name, value);
    }

    void set(std::string name, std::string value) {
        for (auto& entry : entries_) {
            if (entry.first == name) {
                entry.second = std::move(value);
                return;
            }
        }
        entries_.emplace_back(std::move(name), std::move(value));
    }
    const std::string* find(std::string_view name) const {
        for (const auto& entry : entries_)
            if (entry.first == name) return &entry.second;
        return nullptr;
    }
    std::optional<std::string> value(std::string_view name) const {
        if (const auto* v = find(name)) return *v;
        return std::nullopt;
    }
    bool contains(std::string_view name) const { return find(name) != nullptr; }
    bool remove(std::string_view name) {
        for (auto it = entries_.begin(); it != entries_.end(); ++it) {
            if (it->first == name) {
                entries_.erase(it);
                return true;
            }
        }
        return false;
    }

    bool empty() const { return entries_.empty(); }
    std::size_t size() const { return entries_.size(); }
    void clear() { entries_.clear(); }
    auto begin() const { return entries_.begin(); }
    auto end() const { return entries_.end(); }
    bool operator==(const AttributeList&) const = default;

private:
    std::vector<Entry> entries_;
};

} // namespace ovalto
