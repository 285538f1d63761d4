#pragma once

class HFSPlusBTreeFile;
class HFSPlusBTreeNode;

/** A node taken from a tree's cache; goes back when the guard goes. Empty when it could not be had.
 */
class HFSPlusCachedNode {
public:
    HFSPlusCachedNode() = default;
    HFSPlusCachedNode(const HFSPlusCachedNode&) = delete;
    HFSPlusCachedNode& operator=(const HFSPlusCachedNode&) = delete;
    HFSPlusCachedNode(HFSPlusCachedNode&& other) noexcept;
    HFSPlusCachedNode& operator=(HFSPlusCachedNode&& other) noexcept;
    ~HFSPlusCachedNode();

    explicit operator bool() const { return _node != nullptr; }
    HFSPlusBTreeNode* operator->() const { return _node; }
    HFSPlusBTreeNode& operator*() const { return *_node; }
    [[nodiscard]] HFSPlusBTreeNode* get() const { return _node; }

private:
    friend class HFSPlusBTreeFile;
    HFSPlusCachedNode(HFSPlusBTreeFile& btree, HFSPlusBTreeNode& node)
        : _btree(&btree), _node(&node)
    {
    }

    HFSPlusBTreeFile* _btree = nullptr;
    HFSPlusBTreeNode* _node = nullptr;
};
