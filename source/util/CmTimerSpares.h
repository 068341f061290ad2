// The memory of timers that fired or were cancelled, kept for coming ones; internal.
#ifndef CM_TIMER_SPARES_H
#define CM_TIMER_SPARES_H

#include <list>
#include <map>
#include <utility>
#include <vector>

#include "CmBase.h"

namespace UTIL_NS {

// Spare nodes of a list. They change lists by splicing, so a node keeps its address and iterators
// to it hold. The one that was kept last is used first: it is the one in the processor's cache.
template <class ValueType>
class CCmSpareListNodesT {
  public:
    typedef std::list<ValueType> ListType;
    typedef typename ListType::iterator Iterator;

    // Lets the next Insert do without memory. Throws std::bad_alloc, having changed nothing.
    void Reserve() {
        if (CM_UNLIKELY(m_Nodes.empty())) {
            m_Nodes.emplace_front();
        }
    }
    // Inserts a spare node with aValue before aPlace; there is one after Reserve or Keep.
    Iterator Insert(ListType& aList, Iterator aPlace, const ValueType& aValue) {
        const Iterator itNode = m_Nodes.begin();
        *itNode = aValue;
        aList.splice(aPlace, m_Nodes, itNode);
        return itNode;
    }
    // Takes a node out of aList.
    void Keep(ListType& aList, Iterator aNode) { m_Nodes.splice(m_Nodes.begin(), aList, aNode); }

  private:
    ListType m_Nodes;
};

// Spare nodes of one map, which they leave by extract.
template <class KeyType, class ValueType>
class CCmSpareMapNodesT {
  public:
    typedef std::map<KeyType, ValueType> MapType;
    typedef typename MapType::iterator Iterator;

    // Inserts a key that the map does not have; at once when it belongs right before aHint, by a
    // walk down the map otherwise. Its value is yet to be set: it may be that of another key.
    // Throws std::bad_alloc, having changed nothing.
    Iterator Insert(MapType& aMap, Iterator aHint, const KeyType& aKey) {
        if (CM_UNLIKELY(m_Nodes.empty())) {
            // Keep must not allocate: there is room here for as many nodes as the map has.
            if (aMap.size() == m_Nodes.capacity()) {
                m_Nodes.reserve(2 * aMap.size() + 1);
            }
            return aMap.emplace_hint(aHint, aKey, ValueType());
        }
        NodeType node = std::move(m_Nodes.back());
        m_Nodes.pop_back();
        node.key() = aKey;
        return aMap.insert(aHint, std::move(node));
    }
    // Takes a node out of the map, all of whose nodes came by Insert. Allocates nothing, since
    // cancelling a timer and its last firing must not fail.
    void Keep(MapType& aMap, Iterator aNode) { m_Nodes.push_back(aMap.extract(aNode)); }

  private:
    typedef typename MapType::node_type NodeType;

    std::vector<NodeType> m_Nodes;
};

}  // namespace UTIL_NS

#endif  // CM_TIMER_SPARES_H
