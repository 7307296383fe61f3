// Keyed collections of the measurement tree: an ordered vector of entries plus
// an open-addressing index from key to position, built once a collection has
// more than a handful of entries. Keys compare case-insensitively, like the
// keyed collections the tree was designed around. A key that is a canonical
// decimal integer ("12", "-3") is held as a Long value, so numeric keys - the
// common case for sites and points - cost no text allocation.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/value.h"

namespace zorv {

// A collection key from text or a number.
Value MakeKey(std::string_view text);
Value MakeKey(long n);
// The text of a key ("12", "W1F3").
std::string KeyText(const Value& key);
bool KeyEqual(const Value& a, const Value& b);
size_t KeyHash(const Value& key);

// Position index over keys (positions are 0-based here).
class KeyIndex {
public:
    // Position of key, or -1. keyAt(i) gives the key of entry i.
    template <class KeyAt>
    int find(const Value& key, size_t count, KeyAt keyAt) const {
        if (slots_.empty()) {
            for (size_t i = 0; i < count; ++i)
                if (KeyEqual(keyAt(i), key)) return static_cast<int>(i);
            return -1;
        }
        size_t mask = slots_.size() - 1;
        for (size_t h = KeyHash(key) & mask;; h = (h + 1) & mask) {
            uint32_t s = slots_[h];
            if (s == 0) return -1;
            if (KeyEqual(keyAt(s - 1), key)) return static_cast<int>(s - 1);
        }
    }
    // Called after entry `pos` was appended.
    template <class KeyAt>
    void added(size_t pos, size_t count, KeyAt keyAt) {
        if (count <= kLinear) return;
        if (slots_.size() < 2 * count) { rebuild(count, keyAt); return; }
        place(KeyHash(keyAt(pos)), pos);
    }
    template <class KeyAt>
    void rebuild(size_t count, KeyAt keyAt) {
        slots_.clear();
        if (count <= kLinear) return;
        size_t n = 16;
        while (n < 2 * count) n <<= 1;
        slots_.assign(n, 0);
        for (size_t i = 0; i < count; ++i) place(KeyHash(keyAt(i)), i);
    }
    void clear() { slots_.clear(); slots_.shrink_to_fit(); }
    size_t memoryBytes() const { return slots_.capacity() * sizeof(uint32_t); }

private:
    static constexpr size_t kLinear = 8;
    void place(size_t hash, size_t pos) {
        size_t mask = slots_.size() - 1;
        size_t h = hash & mask;
        while (slots_[h] != 0) h = (h + 1) & mask;
        slots_[h] = static_cast<uint32_t>(pos + 1);
    }
    std::vector<uint32_t> slots_;
};

// Intrusive shared reference for objects held by two collections at once
// (a site is in its field's `sites` and its wafer's `SitesWafer`). T has a
// uint32_t member refs_ and befriends Ref<T>.
template <class T>
class Ref {
public:
    using element_type = T;
    Ref() noexcept = default;
    Ref(std::nullptr_t) noexcept {}
    explicit Ref(T* p) noexcept : p_(p) { if (p_) ++p_->refs_; }
    Ref(const Ref& o) noexcept : p_(o.p_) { if (p_) ++p_->refs_; }
    Ref(Ref&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
    Ref& operator=(Ref o) noexcept { std::swap(p_, o.p_); return *this; }
    ~Ref() { reset(); }
    void reset() noexcept {
        if (p_ && --p_->refs_ == 0) delete p_;
        p_ = nullptr;
    }
    T* get() const noexcept { return p_; }
    T* operator->() const noexcept { return p_; }
    T& operator*() const noexcept { return *p_; }
    explicit operator bool() const noexcept { return p_ != nullptr; }
    friend bool operator==(const Ref& a, const Ref& b) noexcept { return a.p_ == b.p_; }

private:
    T* p_ = nullptr;
};

// The ordered part of a keyed collection: entries of an owning holder H
// (unique_ptr<T> or Ref<T>) and their keys; positions are 1-based as callers
// see them.
template <class H>
class KeyedList {
public:
    using T = typename H::element_type;
    struct Entry {
        H obj;
        Value key;
    };

    int Count() const noexcept { return static_cast<int>(items_.size()); }
    bool empty() const noexcept { return items_.empty(); }
    // 1-based position; nullptr when out of range.
    T* at(int pos) const noexcept {
        return pos >= 1 && pos <= Count() ? items_[pos - 1].obj.get() : nullptr;
    }
    const Value& keyAt(int pos) const { return items_[pos - 1].key; }
    // 1-based position of key, 0 when missing.
    int indexOf(const Value& key) const {
        return index_.find(key, items_.size(), [this](size_t i) -> const Value& { return items_[i].key; }) + 1;
    }
    int indexOf(std::string_view key) const { return indexOf(MakeKey(key)); }
    int indexOf(const std::string& key) const { return indexOf(MakeKey(key)); }
    int indexOf(const char* key) const { return indexOf(MakeKey(key)); }
    T* byKey(const Value& key) const { return at(indexOf(key)); }
    T* byKey(std::string_view key) const { return at(indexOf(key)); }
    T* byKey(const std::string& key) const { return at(indexOf(key)); }
    T* byKey(const char* key) const { return at(indexOf(key)); }
    // Position of an object, 0 when absent.
    int positionOf(const T* obj) const {
        for (size_t i = 0; i < items_.size(); ++i)
            if (items_[i].obj.get() == obj) return static_cast<int>(i) + 1;
        return 0;
    }
    // Appends; false (and nothing added) when the key is taken.
    bool insert(H obj, Value key) {
        if (indexOf(key) > 0) return false;
        items_.push_back(Entry{std::move(obj), std::move(key)});
        index_.added(items_.size() - 1, items_.size(),
                     [this](size_t i) -> const Value& { return items_[i].key; });
        return true;
    }
    // Removes and hands back the entry at a 1-based position.
    H take(int pos) {
        if (pos < 1 || pos > Count()) return H();
        H h = std::move(items_[pos - 1].obj);
        items_.erase(items_.begin() + (pos - 1));
        index_.rebuild(items_.size(), [this](size_t i) -> const Value& { return items_[i].key; });
        return h;
    }
    void clear() {
        items_.clear();
        items_.shrink_to_fit();
        index_.clear();
    }
    void reserve(size_t n) { items_.reserve(n); }

    class iterator {
    public:
        using value_type = T*;
        using difference_type = std::ptrdiff_t;
        explicit iterator(const Entry* e) : e_(e) {}
        T* operator*() const { return e_->obj.get(); }
        iterator& operator++() { ++e_; return *this; }
        iterator operator++(int) { iterator t = *this; ++e_; return t; }
        bool operator==(const iterator& o) const { return e_ == o.e_; }
        bool operator!=(const iterator& o) const { return e_ != o.e_; }

    private:
        const Entry* e_;
    };
    iterator begin() const { return iterator(items_.data()); }
    iterator end() const { return iterator(items_.data() + items_.size()); }

    size_t memoryBytes() const { return items_.capacity() * sizeof(Entry) + index_.memoryBytes(); }

private:
    std::vector<Entry> items_;
    KeyIndex index_;
};

}  // namespace zorv
