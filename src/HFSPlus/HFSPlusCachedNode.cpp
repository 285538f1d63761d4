#include "HFSPlus/HFSPlusCachedNode.h"

#include <utility>

#include "HFSPlus/HFSPlusBTreeFile.h"

HFSPlusCachedNode::HFSPlusCachedNode(HFSPlusCachedNode&& other) noexcept
    : _btree(std::exchange(other._btree, nullptr)), _node(std::exchange(other._node, nullptr))
{
}

HFSPlusCachedNode& HFSPlusCachedNode::operator=(HFSPlusCachedNode&& other) noexcept
{
    std::swap(_btree, other._btree);
    std::swap(_node, other._node);
    return *this;
}

HFSPlusCachedNode::~HFSPlusCachedNode()
{
    if (_node != nullptr) {
        _btree->cachedNodeRelease(*_node);
    }
}
