// A growing array for the tool's C++ code (the interpreter tracer).
//
// The standard allocator must not be used in the tool: it may resolve to the
// application's operator new. SalAllocator goes to the tool's malloc and free,
// and SalVector is the small vector built on it. A failed allocation or an
// impossible count is an assertion, not an exception (the collector has none).
#ifndef SAL_VECTOR_HPP
#define SAL_VECTOR_HPP

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

#include "sal_assert.h"

template <typename T>
class SalAllocator {
public:
    using value_type = T;

    SalAllocator() noexcept = default;
    template <typename U>
    SalAllocator(const SalAllocator<U> &) noexcept {}

    static constexpr std::size_t max_size() noexcept
    {
        return std::numeric_limits<std::size_t>::max() / sizeof(T);
    }

    T *allocate(std::size_t count)
    {
        SAL_ASSERT((count <= max_size()));
        void *result = std::malloc(count * sizeof(T));
        SAL_ASSERT((result != __null));
        return static_cast<T *>(result);
    }

    void deallocate(T *pointer, std::size_t) noexcept { std::free(pointer); }

    template <typename U>
    bool operator==(const SalAllocator<U> &) const noexcept { return true; }
};

template <typename T>
class SalVector {
public:
    SalVector() noexcept = default;
    SalVector(const SalVector &) = delete;
    SalVector &operator=(const SalVector &) = delete;
    SalVector(SalVector &&other) noexcept { swap(other); }
    SalVector &operator=(SalVector &&other) noexcept
    {
        if (this != &other) {
            clear();
            release();
            swap(other);
        }
        return *this;
    }
    ~SalVector()
    {
        clear();
        release();
    }

    std::size_t size() const noexcept { return count_; }
    std::size_t capacity() const noexcept { return capacity_; }
    bool empty() const noexcept { return count_ == 0; }
    T *data() noexcept { return items_; }
    const T *data() const noexcept { return items_; }
    T *begin() noexcept { return items_; }
    T *end() noexcept { return items_ + count_; }
    const T *begin() const noexcept { return items_; }
    const T *end() const noexcept { return items_ + count_; }

    T &operator[](std::size_t index) noexcept { return items_[index]; }
    const T &operator[](std::size_t index) const noexcept { return items_[index]; }
    T &back() noexcept { return items_[count_ - 1]; }

    void reserve(std::size_t wanted)
    {
        if (wanted <= capacity_)
            return;
        T *grown = allocator_.allocate(wanted);
        for (std::size_t i = 0; i < count_; ++i) {
            new (grown + i) T(std::move(items_[i]));
            items_[i].~T();
        }
        release();
        items_ = grown;
        capacity_ = wanted;
    }

    template <typename... Args>
    T &emplace_back(Args &&...args)
    {
        if (count_ == capacity_)
            reserve(capacity_ ? capacity_ * 2 : 8);
        T *slot = new (items_ + count_) T(std::forward<Args>(args)...);
        ++count_;
        return *slot;
    }
    void push_back(const T &value) { emplace_back(value); }
    void push_back(T &&value) { emplace_back(std::move(value)); }

    void pop_back() noexcept
    {
        --count_;
        items_[count_].~T();
    }

    void clear() noexcept
    {
        while (count_ != 0)
            pop_back();
    }

    void resize(std::size_t wanted)
    {
        reserve(wanted);
        while (count_ < wanted)
            emplace_back();
        while (count_ > wanted)
            pop_back();
    }

private:
    void release() noexcept
    {
        if (items_ != nullptr)
            allocator_.deallocate(items_, capacity_);
        items_ = nullptr;
        capacity_ = 0;
    }
    void swap(SalVector &other) noexcept
    {
        std::swap(items_, other.items_);
        std::swap(count_, other.count_);
        std::swap(capacity_, other.capacity_);
    }

    SalAllocator<T> allocator_;
    T *items_ = nullptr;
    std::size_t count_ = 0;
    std::size_t capacity_ = 0;
};

#endif // SAL_VECTOR_HPP
