#pragma once

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

namespace dax::client {

class IClientComponent;

/// A client's components by id, in ascending id order. It is an ordered map with the
/// interface, iterators and iterator stability of `std::map<int64_t, IClientComponent*>` (and
/// `map()` reads it as one), plus a contiguous index of its entries: a state update naming every
/// component walks that index instead of chasing one tree node after another.
///
/// The index points at the map's own entries, so a component replaced through an iterator
/// (`it->second = c`) is seen at once; inserting or erasing an entry makes the index stale,
/// and it is rebuilt in one pass the next time it is asked for. Used from one thread at a time.
class ComponentMap : private std::map<int64_t, IClientComponent*> {
    using Map = std::map<int64_t, IClientComponent*>;

  public:
    using Map::const_iterator;
    using Map::const_reverse_iterator;
    using Map::iterator;
    using Map::key_type;
    using Map::mapped_type;
    using Map::reverse_iterator;
    using Map::size_type;
    using Map::value_type;

    using Map::at;
    using Map::begin;
    using Map::cbegin;
    using Map::cend;
    using Map::count;
    using Map::crbegin;
    using Map::crend;
    using Map::empty;
    using Map::end;
    using Map::equal_range;
    using Map::find;
    using Map::lower_bound;
    using Map::max_size;
    using Map::rbegin;
    using Map::rend;
    using Map::size;
    using Map::upper_bound;

    /// The entries in ascending id order: `ids[i]` is the key of `*entries[i]`.
    struct Index {
        std::vector<int64_t> ids;
        std::vector<value_type*> entries;
    };

    ComponentMap() = default;
    /// Copies the entries; the index is the copy's own.
    ComponentMap(const ComponentMap& other) : Map(other) {}
    ComponentMap(ComponentMap&& other) noexcept : Map(std::move(other)) { other.changed(); }
    ComponentMap& operator=(const ComponentMap& other) {
        if (this != &other) {
            Map::operator=(other);
            changed();
        }
        return *this;
    }
    ComponentMap& operator=(ComponentMap&& other) noexcept {
        if (this != &other) {
            Map::operator=(std::move(other));
            changed();
            other.changed();
        }
        return *this;
    }

    /// The whole map, read-only.
    const Map& map() const { return *this; }

    /// The pointer stored under `id`, inserted as null when there is none.
    mapped_type& operator[](int64_t id) {
        auto [it, inserted] = Map::try_emplace(id, nullptr);
        if (inserted) changed();
        return it->second;
    }
    std::pair<iterator, bool> insert(const value_type& entry) {
        auto result = Map::insert(entry);
        if (result.second) changed();
        return result;
    }
    template <class... Args>
    std::pair<iterator, bool> emplace(Args&&... args) {
        auto result = Map::emplace(std::forward<Args>(args)...);
        if (result.second) changed();
        return result;
    }
    template <class... Args>
    std::pair<iterator, bool> try_emplace(int64_t id, Args&&... args) {
        auto result = Map::try_emplace(id, std::forward<Args>(args)...);
        if (result.second) changed();
        return result;
    }
    iterator erase(const_iterator position) {
        changed();
        return Map::erase(position);
    }
    iterator erase(iterator position) {
        changed();
        return Map::erase(position);
    }
    iterator erase(const_iterator first, const_iterator last) {
        changed();
        return Map::erase(first, last);
    }
    size_type erase(int64_t id) {
        const size_type erased = Map::erase(id);
        if (erased != 0) changed();
        return erased;
    }
    void clear() noexcept {
        Map::clear();
        changed();
    }
    void swap(ComponentMap& other) noexcept {
        Map::swap(other);
        changed();
        other.changed();
    }

    friend bool operator==(const ComponentMap& a, const ComponentMap& b) {
        return a.map() == b.map();
    }
    friend bool operator!=(const ComponentMap& a, const ComponentMap& b) { return !(a == b); }

    /// The index of the current entries, rebuilt first when entries came or went since it was
    /// last built. Valid until the next insertion or erasure.
    const Index& index() const;
    /// Changes with every insertion or erasure: an index taken at another generation is stale.
    uint64_t generation() const { return generation_; }

  private:
    void changed() noexcept {
        ++generation_;
        stale_ = true;
    }

    mutable Index index_;
    mutable bool stale_ = true;
    uint64_t generation_ = 0;
};

}  // namespace dax::client
