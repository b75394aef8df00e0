// Nodes of the lists that every discovery cycle builds and frees, kept for the next
// cycle instead of going back to malloc: a steady cycle allocates nothing. At most
// KEEP nodes wait, so memory stays flat after a burst. Main thread only.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <type_traits>

template <typename Node, size_t KEEP>
class NodePool {
    static_assert(std::is_trivially_copyable_v<Node>, "nodes are plain list records");

   public:
    NodePool() = default;
    NodePool(const NodePool &) = delete;
    NodePool &operator=(const NodePool &) = delete;
    ~NodePool() { drain(); }

    // A zeroed node, or null when memory is short.
    Node *take() {
        Node *node = spare_;
        if (!node) return static_cast<Node *>(std::calloc(1, sizeof(Node)));
        spare_ = node->next;
        --count_;
        *node = Node{};
        return node;
    }

    // Takes back every node of the list at *HEAD, which ends empty.
    void giveList(Node **head) {
        if (!head) return;
        while (Node *node = *head) {
            *head = node->next;
            give(node);
        }
    }

    // Returns every kept node to malloc.
    void drain() {
        while (Node *node = spare_) {
            spare_ = node->next;
            std::free(node);
        }
        count_ = 0;
    }

   private:
    void give(Node *node) {
        if (count_ == KEEP) {
            std::free(node);
            return;
        }
        node->next = spare_;
        spare_ = node;
        ++count_;
    }

    Node *spare_ = nullptr;
    size_t count_ = 0;
};
