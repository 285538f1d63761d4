#pragma once

#include <cstddef>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "KLKit/KLDebug.h"

/** An ordered queue of distinct objects with constant-time membership and removal.
 *
 *  The queue owns its members. Inserting a member twice, or next to a non-member, aborts. Null
 *  stands for none. One thread at a time.
 */
template <typename T>
class KLQueue {
public:
    using Object = std::shared_ptr<T>;

    KLQueue() = default;
    KLQueue(const KLQueue&) = delete;
    KLQueue& operator=(const KLQueue&) = delete;

    [[nodiscard]] size_t count() const { return _map.size(); }
    [[nodiscard]] bool containsObject(const Object& object) const { return _nodeOf(object); }

    [[nodiscard]] Object headObject() const { return _objectOf(_head); }
    [[nodiscard]] Object tailObject() const { return _objectOf(_tail); }
    /** The neighbours of a member; null at the ends and for anything that is no member. */
    [[nodiscard]] Object nextObject(const Object& object) const
    {
        const Node* const node = _nodeOf(object);
        return node != nullptr ? _objectOf(node->next) : nullptr;
    }
    [[nodiscard]] Object prevObject(const Object& object) const
    {
        const Node* const node = _nodeOf(object);
        return node != nullptr ? _objectOf(node->prev) : nullptr;
    }
    /** The members in order. */
    [[nodiscard]] std::vector<Object> getObjects() const
    {
        std::vector<Object> objects;
        objects.reserve(count());
        for (const Node* node = _head; node != nullptr; node = node->next) {
            objects.push_back(node->object);
        }
        return objects;
    }

    void enqueueHeadObject(Object object) { _insert(std::move(object), nullptr, _head); }
    void enqueueTailObject(Object object) { _insert(std::move(object), _tail, nullptr); }
    void enqueueObjectAfterObject(Object object, const Object& member)
    {
        Node& node = _memberNode(member);
        _insert(std::move(object), &node, node.next);
    }
    void enqueueObjectBeforeObject(Object object, const Object& member)
    {
        Node& node = _memberNode(member);
        _insert(std::move(object), node.prev, &node);
    }

    /** These remove an object and return it, or null when there is none. */
    Object dequeueHeadObject() { return _remove(_head); }
    Object dequeueTailObject() { return _remove(_tail); }
    Object dequeueNextObject(const Object& object)
    {
        const Node* const node = _nodeOf(object);
        return _remove(node != nullptr ? node->next : nullptr);
    }
    Object dequeuePrevObject(const Object& object)
    {
        const Node* const node = _nodeOf(object);
        return _remove(node != nullptr ? node->prev : nullptr);
    }
    void dequeueObject(const Object& object) { _remove(_nodeOf(object)); }
    void dequeueAllObjects()
    {
        while (_head != nullptr) {
            _remove(_head);
        }
    }

private:
    struct Node {
        Node* next = nullptr;
        Node* prev = nullptr;
        Object object;
    };

    [[nodiscard]] static Object _objectOf(const Node* node)
    {
        return node != nullptr ? node->object : nullptr;
    }

    [[nodiscard]] Node* _nodeOf(const Object& object) const
    {
        const auto found = _map.find(object.get());
        return found != _map.end() ? found->second.get() : nullptr;
    }

    [[nodiscard]] Node& _memberNode(const Object& member) const
    {
        Node* const node = _nodeOf(member);
        if (node == nullptr) {
            KLPanic("inserting next to an object that is not in the queue\n");
        }
        return *node;
    }

    void _insert(Object object, Node* prev, Node* next)
    {
        if (object == nullptr || _nodeOf(object) != nullptr) {
            KLPanic("inserting an object that is none or already in the queue\n");
        }
        auto owned = std::make_unique<Node>(Node{.next = next, .prev = prev, .object = object});
        Node* const node = owned.get();
        _map.emplace(object.get(), std::move(owned));
        // Last: a queue for which there was no memory stays as it was.
        (prev != nullptr ? prev->next : _head) = node;
        (next != nullptr ? next->prev : _tail) = node;
    }

    Object _remove(Node* node)
    {
        if (node == nullptr) {
            return nullptr;
        }
        (node->prev != nullptr ? node->prev->next : _head) = node->next;
        (node->next != nullptr ? node->next->prev : _tail) = node->prev;
        Object object = std::move(node->object);
        _map.erase(object.get());
        return object;
    }

    std::unordered_map<const T*, std::unique_ptr<Node>> _map;  // by object; owns nodes and members
    Node* _head = nullptr;
    Node* _tail = nullptr;
};
