#include <dax/client/components/component_map.hpp>

namespace dax::client {

const ComponentMap::Index& ComponentMap::index() const {
    if (!stale_) return index_;
    index_.ids.clear();
    index_.entries.clear();
    index_.ids.reserve(size());
    index_.entries.reserve(size());
    // The entries are the tree's nodes, which stay where they are until erased; the index
    // hands out mutable entries as the map's own iterators do.
    auto& self = const_cast<ComponentMap&>(*this);
    for (auto it = self.Map::begin(); it != self.Map::end(); ++it) {
        index_.ids.push_back(it->first);
        index_.entries.push_back(&*it);
    }
    stale_ = false;
    return index_;
}

}  // namespace dax::client
