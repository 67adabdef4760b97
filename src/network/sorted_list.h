#pragma once
// A vector kept sorted and free of duplicates under one order: an element
// equivalent to one already present (neither is Less than the other) is not
// inserted again. The lists of the network state are all of this kind.
//
// A value: no locking of its own.
#include <algorithm>
#include <cstddef>
#include <iterator>
#include <vector>

namespace qv::Network {

template <class T, class Less>
class SortedList {
public:
    using value_type = T;
    using const_iterator = typename std::vector<T>::const_iterator;

    SortedList() = default;
    SortedList(std::initializer_list<T> items) {
        for (const T& item : items) Insert(item);
    }

    // Inserts `item` at its place; false (and nothing changes) when an
    // equivalent element is present.
    bool Insert(const T& item) {
        auto at = std::lower_bound(items_.begin(), items_.end(), item, Less{});
        if (at != items_.end() && !Less{}(item, *at)) return false;
        items_.insert(at, item);
        return true;
    }

    // Sorted union: the elements of `other` not present here are added.
    void Merge(const SortedList& other) {
        if (other.items_.empty()) return;
        std::vector<T> merged;
        merged.reserve(items_.size() + other.items_.size());
        std::set_union(items_.begin(), items_.end(), other.items_.begin(), other.items_.end(),
                       std::back_inserter(merged), Less{});
        items_ = std::move(merged);
    }

    void Clear() noexcept { items_.clear(); }
    size_t size() const noexcept { return items_.size(); }
    bool empty() const noexcept { return items_.empty(); }
    const_iterator begin() const noexcept { return items_.begin(); }
    const_iterator end() const noexcept { return items_.end(); }
    const T& operator[](size_t i) const { return items_[i]; }
    const std::vector<T>& items() const noexcept { return items_; }

private:
    std::vector<T> items_;
};

}  // namespace qv::Network
