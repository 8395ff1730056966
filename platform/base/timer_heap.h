// Timers in the order in which they become due.
#pragma once

#include <cstdint>

namespace base {

template <class T, class Time>
class TimerHeap;

// What a timer inherits. It must have left its heap when it is destroyed.
template <class Time>
class TimerNode {
 public:
  TimerNode() = default;
  TimerNode(const TimerNode&) = delete;
  TimerNode& operator=(const TimerNode&) = delete;

  [[nodiscard]] bool set() const noexcept { return prev_ != nullptr; }
  [[nodiscard]] Time due() const noexcept { return due_; }  // as set last

 private:
  template <class, class>
  friend class TimerHeap;

  Time due_{};
  std::uint64_t order_ = 0;
  TimerNode* child_ = nullptr;  // the first of those below it, none of which goes before it
  TimerNode* next_ = nullptr;   // the next one below the same node
  TimerNode* prev_ = nullptr;   // the one before; of the first its parent; of the root itself
};

// A pairing heap: the nodes hold all there is, so nothing here takes memory or fails. Setting costs
// a comparison, and so does cancelling a timer that never came near the top, which is the fate of
// nearly all; taking the first costs O(log n) amortized (the first time after n settings, n
// comparisons at once). Timers of one instant go in the order in which they were set.
// Not thread-safe; owns nothing. Time is ordered by <.
template <class T, class Time>
class TimerHeap {
  using Node = TimerNode<Time>;

 public:
  TimerHeap() = default;
  TimerHeap(const TimerHeap&) = delete;
  TimerHeap& operator=(const TimerHeap&) = delete;

  // Null when none is set.
  [[nodiscard]] T* Top() const noexcept { return static_cast<T*>(root_); }

  // One that is set already is moved, and counts as set now.
  void Set(T& timer, Time due) noexcept {
    Node& node = timer;
    Cancel(timer);
    node.due_ = due;
    node.order_ = next_order_++;
    SetRoot(root_ == nullptr ? &node : Meld(root_, &node));
  }

  // Nothing happens to a timer that is not set; one that is must be in this heap.
  void Cancel(T& timer) noexcept {
    Node& node = timer;
    if (!node.set()) return;
    if (&node == root_) {
      SetRoot(MergeChildren(node));
    } else {
      (node.prev_->child_ == &node ? node.prev_->child_ : node.prev_->next_) = node.next_;
      if (node.next_ != nullptr) node.next_->prev_ = node.prev_;
      if (Node* orphans = MergeChildren(node)) Meld(root_, orphans);  // none goes before the root
    }
    node.next_ = node.prev_ = nullptr;
  }

  // Tells what is set from now on from what was set before.
  [[nodiscard]] std::uint64_t Mark() const noexcept { return next_order_; }

  // Takes out the first, if it is due and was set before the mark; else null.
  T* TakeDue(Time now, std::uint64_t mark) noexcept {
    if (root_ == nullptr || now < root_->due_ || root_->order_ >= mark) return nullptr;
    T* first = Top();
    Cancel(*first);
    return first;
  }

  // Forgets all without a look at them, for an owner who destroys them next.
  void Abandon() noexcept { root_ = nullptr; }

 private:
  static bool Before(const Node& a, const Node& b) noexcept {
    return a.due_ != b.due_ ? a.due_ < b.due_ : a.order_ < b.order_;
  }

  void SetRoot(Node* node) noexcept {
    root_ = node;
    if (node == nullptr) return;
    node->next_ = nullptr;
    node->prev_ = node;
  }

  // Puts the later of two under the other, which is what it gives.
  static Node* Meld(Node* a, Node* b) noexcept {
    Node* const above = Before(*b, *a) ? b : a;
    Node* const below = above == a ? b : a;
    below->next_ = above->child_;
    if (below->next_ != nullptr) below->next_->prev_ = below;
    below->prev_ = above;
    above->child_ = below;
    return above;
  }

  // Makes one tree of what is below the node: in pairs from the left, then all pairs from the
  // right. That order is what keeps the cost logarithmic.
  static Node* MergeChildren(Node& node) noexcept {
    Node* rest = node.child_;
    node.child_ = nullptr;
    Node* pairs = nullptr;  // the last one first
    while (rest != nullptr) {
      Node* const first = rest;
      Node* const second = first->next_;
      if (second == nullptr) {
        rest = nullptr;
      } else {
        rest = second->next_;
      }
      Node* const pair = second == nullptr ? first : Meld(first, second);
      pair->next_ = pairs;
      pairs = pair;
    }
    Node* tree = pairs;
    if (tree == nullptr) return nullptr;
    for (Node* next = tree->next_; next != nullptr;) {
      Node* const pair = next;
      next = pair->next_;
      tree = Meld(tree, pair);
    }
    return tree;
  }

  Node* root_ = nullptr;
  std::uint64_t next_order_ = 0;
};

}  // namespace base
