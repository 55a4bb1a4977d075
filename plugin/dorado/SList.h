// A list that keeps copies of values at fixed addresses until it is destroyed.
//
// Nodes are only added, at the front, and never moved or removed, so a pointer to a value stays
// good for the list's life. The list owns its nodes.
#ifndef DORADO_SLIST_H
#define DORADO_SLIST_H

#include <cstdint>
#include <cstring>
#include <new>

template <typename T>
class SList {
  public:
    struct SNode {
        explicit SNode(const T& copied) : value(copied) {}
        virtual ~SNode() = default;

        SNode* next = nullptr;
        SNode* prev = nullptr;
        T value;
    };

    SList() = default;
    SList(const SList&) = delete;
    SList& operator=(const SList&) = delete;

    virtual ~SList() {
        while (head != nullptr) {
            SNode* next = head->next;
            delete head;
            head = next;
        }
    }

    // The new node. When memory is short the list goes on with a null node at its head, as its
    // users have always seen it: the older nodes are out of reach from then on.
    SNode* pushFront(T value) {
        auto* node = new (std::nothrow) SNode(value);
        if (node != nullptr) {
            node->next = head;
        }
        if (head == nullptr) {
            tail = node;
        } else {
            head->prev = node;
        }
        head = node;
        ++count;
        return node;
    }

    // The address of the kept copy that equals `value` in every byte, added when there is none;
    // null when memory is short.
    T* findOrAdd(const T& value) {
        for (SNode* node = head; node != nullptr; node = node->next) {
            if (std::memcmp(&node->value, &value, sizeof(T)) == 0) {
                return &node->value;
            }
        }
        SNode* node = pushFront(value);
        return node != nullptr ? &node->value : nullptr;
    }

    SNode* head = nullptr;
    SNode* tail = nullptr;
    uint32_t count = 0;
};

static_assert(sizeof(SList<uint64_t>) == 32 && sizeof(SList<uint64_t>::SNode) == 32);

#endif
