#pragma once
// The module's own list container and enumerators, used wherever an
// interface passes a collection (rules, method sets, rule errors, run
// reports, identifiers).
//
// qv::List<T> is a doubly linked list that owns copies of its elements. It is
// not thread-safe: the owner serialises access. Enumerators point into the
// list: they stay valid while the list lives and no element is removed other
// than through RemoveAt with that same enumerator (which moves it on).
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <utility>

#include "qv/status.h"

namespace qv {

// Modifiable enumerator over a list.
template <class T>
struct IListEnum {
    // Whether the position is on an element (not at the end).
    virtual bool IsValid() const = 0;
    // Steps to the next element; stays at the end once there.
    virtual void Next() = 0;
    // The current element, or null at the end.
    virtual T* Current() = 0;
    // Deletes the enumerator.
    virtual void Release() = 0;
    // Returns to the first element.
    virtual void Reset() = 0;
    virtual ~IListEnum() = default;
};

// Read-only enumerator over a list.
template <class T>
struct IConstListEnum {
    virtual bool IsValid() const = 0;
    virtual void Next() = 0;
    virtual const T* Current() const = 0;
    virtual void Release() = 0;
    virtual void Reset() = 0;
    virtual ~IConstListEnum() = default;
};

// Releases an enumerator through its own Release.
struct EnumReleaser {
    template <class E>
    void operator()(E* e) const noexcept {
        if (e) e->Release();
    }
};
template <class T>
using ListEnumPtr = std::unique_ptr<IListEnum<T>, EnumReleaser>;
template <class T>
using ConstListEnumPtr = std::unique_ptr<IConstListEnum<T>, EnumReleaser>;

template <class T>
struct IList {
    // Appends a copy at the end: 0, or kNotEnoughMemory after logging "list too long" when
    // the list already holds its maximum count.
    [[nodiscard]] virtual int32_t AddTail(const T& value) = 0;
    // Inserts a copy at the front; same results as AddTail.
    [[nodiscard]] virtual int32_t AddHead(const T& value) = 0;
    // The last element, or null when empty.
    virtual T* GetTail() = 0;
    virtual const T* GetTail() const = 0;
    // Copies the last element into `out`: 0, or kNotFound when empty (`out` untouched).
    [[nodiscard]] virtual int32_t CopyTail(T& out) const = 0;
    // The first element, or null when empty.
    virtual T* GetHead() = 0;
    virtual const T* GetHead() const = 0;
    // Copies the first element into `out`: 0, or kNotFound when empty.
    [[nodiscard]] virtual int32_t CopyHead(T& out) const = 0;
    // Removes the element at `position` and moves `position` to the next one:
    // 0; kNotFound when `position` is at the end; kInvalidParameter when it belongs to another list.
    [[nodiscard]] virtual int32_t RemoveAt(IListEnum<T>& position) = 0;
    // New enumerators positioned at the first element; the caller releases them.
    virtual IConstListEnum<T>* CreateConstEnum() const = 0;
    virtual IListEnum<T>* CreateEnum() = 0;
    virtual void Clear() = 0;
    virtual size_t Count() const = 0;

    bool Empty() const { return Count() == 0; }

    // Calls fn(const T&) for every element in order.
    template <class Fn>
    void ForEach(Fn&& fn) const {
        ConstListEnumPtr<T> e(CreateConstEnum());
        for (; e->IsValid(); e->Next()) fn(*e->Current());
    }
    // Calls fn(T&) for every element in order.
    template <class Fn>
    void ForEach(Fn&& fn) {
        ListEnumPtr<T> e(CreateEnum());
        for (; e->IsValid(); e->Next()) fn(*e->Current());
    }

protected:
    ~IList() = default;
};

// Logs "list too long" (level 4) on behalf of every instantiation.
void LogListTooLong();

template <class T>
class List;

namespace detail {
template <class T>
struct ListNode {
    template <class... A>
    explicit ListNode(A&&... args) : value(std::forward<A>(args)...) {}
    T value;
    ListNode* prev = nullptr;
    ListNode* next = nullptr;
};
}  // namespace detail

template <class T>
class ListEnum final : public IListEnum<T> {
public:
    ListEnum(List<T>* list, detail::ListNode<T>* node) : list_(list), node_(node) {}
    bool IsValid() const override { return node_ != nullptr; }
    void Next() override {
        if (node_) node_ = node_->next;
    }
    T* Current() override { return node_ ? &node_->value : nullptr; }
    void Release() override { delete this; }
    void Reset() override { node_ = list_->head_; }

private:
    friend class List<T>;
    List<T>* list_;
    detail::ListNode<T>* node_;
};

template <class T>
class ConstListEnum final : public IConstListEnum<T> {
public:
    ConstListEnum(const List<T>* list, const detail::ListNode<T>* node) : list_(list), node_(node) {}
    bool IsValid() const override { return node_ != nullptr; }
    void Next() override {
        if (node_) node_ = node_->next;
    }
    const T* Current() const override { return node_ ? &node_->value : nullptr; }
    void Release() override { delete this; }
    void Reset() override { node_ = list_->head_; }

private:
    const List<T>* list_;
    const detail::ListNode<T>* node_;
};

template <class T>
class List final : public IList<T> {
    using Node = detail::ListNode<T>;

public:
    // Far above any realistic number of rules, method sets or runs, low enough
    // that a runaway producer fails cleanly instead of exhausting memory.
    static constexpr size_t kDefaultMaxCount = 1'000'000;

    List() = default;
    // A list that refuses to grow beyond `maxCount` elements.
    explicit List(size_t maxCount) : maxCount_(maxCount) {}
    // Literal lists are far below the default limit, so every append succeeds.
    List(std::initializer_list<T> values) {
        for (const T& v : values) static_cast<void>(AddTail(v));
    }
    List(const List& other) : maxCount_(other.maxCount_) { CopyFrom(other); }
    List(List&& other) noexcept { Swap(other); }
    List& operator=(const List& other) {
        if (this != &other) {
            List copy(other);
            Swap(copy);
        }
        return *this;
    }
    List& operator=(List&& other) noexcept {
        if (this != &other) {
            Clear();
            Swap(other);
        }
        return *this;
    }
    ~List() { Clear(); }

    [[nodiscard]] int32_t AddTail(const T& value) override {
        if (!Room()) return status::kNotEnoughMemory;
        Node* node = new Node(value);
        node->prev = tail_;
        (tail_ ? tail_->next : head_) = node;
        tail_ = node;
        ++count_;
        return status::kSuccess;
    }

    [[nodiscard]] int32_t AddHead(const T& value) override {
        if (!Room()) return status::kNotEnoughMemory;
        Node* node = new Node(value);
        node->next = head_;
        (head_ ? head_->prev : tail_) = node;
        head_ = node;
        ++count_;
        return status::kSuccess;
    }

    T* GetTail() override { return tail_ ? &tail_->value : nullptr; }
    const T* GetTail() const override { return tail_ ? &tail_->value : nullptr; }
    [[nodiscard]] int32_t CopyTail(T& out) const override {
        if (!tail_) return status::kNotFound;
        out = tail_->value;
        return status::kSuccess;
    }
    T* GetHead() override { return head_ ? &head_->value : nullptr; }
    const T* GetHead() const override { return head_ ? &head_->value : nullptr; }
    [[nodiscard]] int32_t CopyHead(T& out) const override {
        if (!head_) return status::kNotFound;
        out = head_->value;
        return status::kSuccess;
    }

    [[nodiscard]] int32_t RemoveAt(IListEnum<T>& position) override {
        auto* e = dynamic_cast<ListEnum<T>*>(&position);
        if (!e || e->list_ != this) return status::kInvalidParameter;
        Node* node = e->node_;
        if (!node) return status::kNotFound;
        e->node_ = node->next;
        (node->prev ? node->prev->next : head_) = node->next;
        (node->next ? node->next->prev : tail_) = node->prev;
        delete node;
        --count_;
        return status::kSuccess;
    }

    IConstListEnum<T>* CreateConstEnum() const override { return new ConstListEnum<T>(this, head_); }
    IListEnum<T>* CreateEnum() override { return new ListEnum<T>(this, head_); }

    void Clear() override {
        while (head_) {
            Node* next = head_->next;
            delete head_;
            head_ = next;
        }
        tail_ = nullptr;
        count_ = 0;
    }

    size_t Count() const override { return count_; }
    size_t maxCount() const noexcept { return maxCount_; }

    // Element-wise equality, in order.
    friend bool operator==(const List& a, const List& b) {
        if (a.count_ != b.count_) return false;
        for (const Node *x = a.head_, *y = b.head_; x; x = x->next, y = y->next)
            if (!(x->value == y->value)) return false;
        return true;
    }

    // Forward iteration for code that holds the concrete list.
    template <class V, class N>
    class Iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = T;
        using difference_type = std::ptrdiff_t;
        using pointer = V*;
        using reference = V&;
        Iterator() = default;
        explicit Iterator(N* node) : node_(node) {}
        reference operator*() const { return node_->value; }
        pointer operator->() const { return &node_->value; }
        Iterator& operator++() {
            node_ = node_->next;
            return *this;
        }
        Iterator operator++(int) {
            Iterator old = *this;
            node_ = node_->next;
            return old;
        }
        bool operator==(const Iterator& other) const { return node_ == other.node_; }

    private:
        N* node_ = nullptr;
    };
    using iterator = Iterator<T, Node>;
    using const_iterator = Iterator<const T, const Node>;
    iterator begin() { return iterator(head_); }
    iterator end() { return iterator(); }
    const_iterator begin() const { return const_iterator(head_); }
    const_iterator end() const { return const_iterator(); }

private:
    friend class ListEnum<T>;
    friend class ConstListEnum<T>;

    bool Room() const {
        if (count_ < maxCount_) return true;
        LogListTooLong();
        return false;
    }

    // The copy has the source's limit, which the source already kept to, so
    // every append succeeds.
    void CopyFrom(const List& other) {
        for (const Node* n = other.head_; n; n = n->next) static_cast<void>(AddTail(n->value));
    }

    void Swap(List& other) noexcept {
        std::swap(head_, other.head_);
        std::swap(tail_, other.tail_);
        std::swap(count_, other.count_);
        std::swap(maxCount_, other.maxCount_);
    }

    Node* head_ = nullptr;
    Node* tail_ = nullptr;
    size_t count_ = 0;
    size_t maxCount_ = kDefaultMaxCount;
};

}  // namespace qv
