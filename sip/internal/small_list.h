// An ordered list that keeps its first N elements inside the object. A parsed message
// carries a dozen headers, one or two Vias and a Contact; holding them inline means
// parsing a message costs no heap allocation beyond the message itself.
#pragma once

#include <cstddef>
#include <new>
#include <utility>

template <class T, int N>
class SmallList {
 public:
  SmallList() = default;
  SmallList(const SmallList& o) {
    reserve(o.size_);
    for (int i = 0; i < o.size_; i++) new (data_ + i) T(o.data_[i]);
    size_ = o.size_;
  }
  SmallList(SmallList&& o) noexcept { take(o); }
  SmallList& operator=(const SmallList& o) {
    if (this != &o) {
      clear();
      reserve(o.size_);
      for (int i = 0; i < o.size_; i++) new (data_ + i) T(o.data_[i]);
      size_ = o.size_;
    }
    return *this;
  }
  SmallList& operator=(SmallList&& o) noexcept {
    if (this != &o) {
      clear();
      free_heap();
      take(o);
    }
    return *this;
  }
  ~SmallList() {
    clear();
    free_heap();
  }

  int size() const { return size_; }
  bool empty() const { return size_ == 0; }
  T& operator[](int i) { return data_[i]; }
  const T& operator[](int i) const { return data_[i]; }
  T& front() { return data_[0]; }
  const T& front() const { return data_[0]; }
  T& back() { return data_[size_ - 1]; }
  const T& back() const { return data_[size_ - 1]; }
  T* begin() { return data_; }
  T* end() { return data_ + size_; }
  const T* begin() const { return data_; }
  const T* end() const { return data_ + size_; }

  template <class... A>
  T& emplace_back(A&&... args) {
    if (size_ == cap_) reserve(cap_ < 4 ? 8 : cap_ * 2);
    T* p;
    // Default-initialised rather than value-initialised: a large element is not zeroed
    // first only to have its constructors run over it.
    if constexpr (sizeof...(A) == 0) p = new (data_ + size_) T;
    else p = new (data_ + size_) T(std::forward<A>(args)...);
    size_++;
    return *p;
  }
  // Constructs the element from what `make` returns, without a move in between.
  template <class F>
  T& emplace_made(F&& make) {
    if (size_ == cap_) reserve(cap_ < 4 ? 8 : cap_ * 2);
    T* p = new (data_ + size_) T(make());
    size_++;
    return *p;
  }
  T& push_back(const T& v) { return emplace_back(v); }
  T& push_back(T&& v) { return emplace_back(std::move(v)); }

  void erase(int i) {
    for (int k = i; k + 1 < size_; k++) data_[k] = std::move(data_[k + 1]);
    data_[--size_].~T();
  }
  template <class P>
  void erase_if(P pred) {
    int w = 0;
    for (int r = 0; r < size_; r++) {
      if (pred(data_[r])) continue;
      if (w != r) data_[w] = std::move(data_[r]);
      w++;
    }
    while (size_ > w) data_[--size_].~T();
  }
  void clear() {
    while (size_ > 0) data_[--size_].~T();
  }
  void reserve(int n) {
    if (n <= cap_) return;
    T* fresh = static_cast<T*>(::operator new(sizeof(T) * static_cast<size_t>(n)));
    for (int i = 0; i < size_; i++) {
      new (fresh + i) T(std::move(data_[i]));
      data_[i].~T();
    }
    free_heap();
    data_ = fresh;
    cap_ = n;
  }

 private:
  T* inline_data() { return reinterpret_cast<T*>(inline_); }
  bool on_heap() const { return data_ != reinterpret_cast<const T*>(inline_); }
  void free_heap() {
    if (on_heap()) ::operator delete(data_);
    data_ = inline_data();
    cap_ = N;
  }
  // Leaves `o` empty; elements in its inline storage are moved one by one.
  void take(SmallList& o) {
    if (o.on_heap()) {
      data_ = o.data_;
      cap_ = o.cap_;
      size_ = o.size_;
      o.data_ = o.inline_data();
      o.cap_ = N;
      o.size_ = 0;
      return;
    }
    for (int i = 0; i < o.size_; i++) new (data_ + i) T(std::move(o.data_[i]));
    size_ = o.size_;
    o.clear();
  }

  alignas(T) unsigned char inline_[N > 0 ? N * sizeof(T) : 1];
  T* data_ = reinterpret_cast<T*>(inline_);
  int size_ = 0;
  int cap_ = N;
};
