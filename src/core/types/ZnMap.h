#pragma once

#include <cstddef>
#include <initializer_list>
#include <map>
#include <utility>

/// An ordered map with deep copies. With ZnString keys the order is that of the bytes; a std::string_view
/// can be looked up without making a ZnString (see ZnString.h for the comparison).
template <typename K, typename V>
class ZnMap {
public:
    using Storage = std::map<K, V, std::less<>>;
    using value_type = typename Storage::value_type;
    using const_reference = typename Storage::const_reference;
    using iterator = typename Storage::iterator;
    using const_iterator = typename Storage::const_iterator;

    ZnMap() = default;
    ZnMap(std::initializer_list<std::pair<const K, V>> values) : values_(values) {}

    std::size_t size() const noexcept { return values_.size(); }
    bool isEmpty() const noexcept { return values_.empty(); }
    void clear() noexcept { values_.clear(); }
    template <typename Key>
    bool contains(const Key& key) const {
        return values_.find(key) != values_.end();
    }
    /// Adds the pair or replaces the value under `key`.
    void insert(K key, V value) { values_.insert_or_assign(std::move(key), std::move(value)); }
    /// The value under `key`, inserted as V() if absent.
    V& operator[](const K& key) { return values_[key]; }
    V& operator[](K&& key) { return values_[std::move(key)]; }
    /// As operator[], at constant cost when `key` comes after all others.
    V& slotNearEnd(const K& key) { return values_.try_emplace(values_.end(), key)->second; }
    V& slotNearEnd(K&& key) { return values_.try_emplace(values_.end(), std::move(key))->second; }
    /// A copy of the value under `key`, or `fallback`.
    template <typename Key>
    V value(const Key& key, V fallback = V()) const {
        auto at = values_.find(key);
        return at == values_.end() ? std::move(fallback) : at->second;
    }
    /// Returns whether an entry was removed.
    template <typename Key>
    bool remove(const Key& key) {
        auto at = values_.find(key);
        if (at == values_.end())
            return false;
        values_.erase(at);
        return true;
    }
    template <typename Key>
    auto find(const Key& key) {
        return values_.find(key);
    }
    template <typename Key>
    auto find(const Key& key) const {
        return values_.find(key);
    }
    auto erase(typename Storage::iterator at) { return values_.erase(at); }

    auto begin() noexcept { return values_.begin(); }
    auto end() noexcept { return values_.end(); }
    auto begin() const noexcept { return values_.begin(); }
    auto end() const noexcept { return values_.end(); }
    bool operator==(const ZnMap& other) const = default;

private:
    Storage values_;
};
