// List and enumerator interfaces through which lists of records cross object boundaries,
// and the one implementation every side uses.
//
// An enumerator is obtained from a list, walks it from the first element, and must be
// given back with Release; it must not outlive its list, and the list must not change
// while an enumerator is in use.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

namespace ky {

template <class T>
struct ConstListEnum {
  // Points *item at the next element and returns true; false (and *item untouched) at the end.
  virtual bool Next(const T** item) = 0;
  virtual void Reset() = 0;
  virtual void Release() = 0;

 protected:
  ~ConstListEnum() = default;
};

template <class T>
struct ListEnum {
  virtual bool Next(T** item) = 0;
  virtual void Reset() = 0;
  virtual void Release() = 0;

 protected:
  ~ListEnum() = default;
};

template <class T>
struct IList {
  virtual std::uint32_t Count() const = 0;
  virtual void Clear() = 0;
  virtual void Add(const T& item) = 0;
  virtual ListEnum<T>* Enum() = 0;
  virtual ConstListEnum<T>* ConstEnum() const = 0;

 protected:
  ~IList() = default;
};

template <class T>
class List final : public IList<T> {
 public:
  List() = default;
  explicit List(std::vector<T> items) : items_(std::move(items)) {}

  std::uint32_t Count() const override { return static_cast<std::uint32_t>(items_.size()); }
  void Clear() override { items_.clear(); }
  void Add(const T& item) override { items_.push_back(item); }
  ListEnum<T>* Enum() override { return new Enumerator<T, ListEnum<T>>(items_); }
  ConstListEnum<T>* ConstEnum() const override { return new Enumerator<const T, ConstListEnum<T>>(items_); }

  const std::vector<T>& Items() const { return items_; }
  std::vector<T>& Items() { return items_; }

 private:
  template <class E, class Base>
  class Enumerator final : public Base {
   public:
    template <class V>
    explicit Enumerator(V& items) : begin_(items.data()), end_(items.data() + items.size()), pos_(begin_) {}
    bool Next(E** item) override {
      if (pos_ == end_) return false;
      *item = pos_++;
      return true;
    }
    void Reset() override { pos_ = begin_; }
    void Release() override { delete this; }

   private:
    E* begin_;
    E* end_;
    E* pos_;
  };

  std::vector<T> items_;
};

// Copies every element of any IList into a vector.
template <class T>
std::vector<T> ToVector(const IList<T>& list) {
  std::vector<T> out;
  out.reserve(list.Count());
  ConstListEnum<T>* e = list.ConstEnum();
  const T* item = nullptr;
  while (e->Next(&item)) out.push_back(*item);
  e->Release();
  return out;
}

}  // namespace ky
