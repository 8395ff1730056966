// A doubly linked list through hooks that its elements inherit: linking and unlinking never
// allocate and never fail, which is what lets an object be queued, moved and ended while memory is
// exhausted.
#pragma once

namespace base {

// An element that is destroyed leaves its list. Tag tells the lists of one element apart.
template <class Tag>
class ListHook {
 public:
  ListHook() = default;
  ListHook(const ListHook&) = delete;
  ListHook& operator=(const ListHook&) = delete;
  ~ListHook() { Unlink(); }

  [[nodiscard]] bool linked() const noexcept { return next_ != this; }
  void Unlink() noexcept {
    prev_->next_ = next_;
    next_->prev_ = prev_;
    prev_ = next_ = this;
  }

 private:
  template <class, class>
  friend class IntrusiveList;
  ListHook* prev_ = this;
  ListHook* next_ = this;
};

// Owns nothing. A list that is destroyed lets its elements go. Not thread-safe.
template <class T, class Tag>
class IntrusiveList {
 public:
  IntrusiveList() = default;
  IntrusiveList(const IntrusiveList&) = delete;
  IntrusiveList& operator=(const IntrusiveList&) = delete;
  ~IntrusiveList() {
    while (PopFront() != nullptr) {
    }
  }

  [[nodiscard]] bool empty() const noexcept { return !head_.linked(); }

  // Takes the element out of the list (of the same tag) that it is in.
  void PushBack(T& element) noexcept { Insert(element, head_); }
  void PushFront(T& element) noexcept { Insert(element, *head_.next_); }

  [[nodiscard]] T* Front() noexcept { return empty() ? nullptr : static_cast<T*>(head_.next_); }

  T* PopFront() noexcept {
    if (empty()) return nullptr;
    ListHook<Tag>* const front = head_.next_;
    head_.next_ = front->next_;
    head_.next_->prev_ = &head_;
    front->prev_ = front->next_ = front;
    return static_cast<T*>(front);
  }

  // Appends all elements of the other list, which is empty afterwards.
  void Splice(IntrusiveList& other) noexcept {
    if (other.empty()) return;
    other.head_.next_->prev_ = head_.prev_;
    head_.prev_->next_ = other.head_.next_;
    other.head_.prev_->next_ = &head_;
    head_.prev_ = other.head_.prev_;
    other.head_.prev_ = other.head_.next_ = &other.head_;
  }

  // The elements in their order, for callers that change nothing meanwhile.
  template <class Visit>
  void ForFirst(unsigned limit, Visit visit) {
    for (ListHook<Tag>* at = head_.next_; at != &head_ && limit > 0; at = at->next_, --limit) {
      visit(*static_cast<T*>(at));
    }
  }

 private:
  void Insert(T& element, ListHook<Tag>& before) noexcept {
    ListHook<Tag>& hook = element;
    if (&hook == &before) return;
    hook.Unlink();
    hook.prev_ = before.prev_;
    hook.next_ = &before;
    before.prev_->next_ = &hook;
    before.prev_ = &hook;
  }

  ListHook<Tag> head_;
};

}  // namespace base
