// Equal slots for the objects a lot holds a million of (points, sites).
#pragma once

#include <cstddef>
#include <mutex>
#include <new>

namespace zorv {

// malloc puts a header before each small object and rounds its size up: 16
// to 24 bytes more for every point or site, 6% of a large lot. Here slots are
// cut from blocks and a freed slot goes on a list for the next object of its
// kind. Blocks stay with the process, as freed heap memory mostly does anyway.
template <class T>
class SlotPool {
    static constexpr size_t Size = sizeof(T);  // a multiple of T's alignment, so every slot is aligned
    static_assert(Size >= sizeof(void*) && alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);

public:
    void* take() {
        std::lock_guard<std::mutex> l(mu_);
        if (Free* f = free_) {
            free_ = f->next;
            return f;
        }
        if (left_ == 0) {
            next_ = static_cast<char*>(::operator new(kSlots * Size));
            left_ = kSlots;
        }
        void* p = next_;
        next_ += Size;
        --left_;
        return p;
    }
    void give(void* p) noexcept {
        std::lock_guard<std::mutex> l(mu_);
        Free* f = static_cast<Free*>(p);
        f->next = free_;
        free_ = f;
    }

private:
    struct Free {
        Free* next;
    };
    // A block under the allocator's mmap threshold, so it comes from the heap.
    static constexpr size_t kSlots = 100000 / Size;
    std::mutex mu_;
    Free* free_ = nullptr;
    char* next_ = nullptr;
    size_t left_ = 0;
};

// The pool of T's, never destroyed: a lot freed during the program's exit
// still gives its objects back.
template <class T>
SlotPool<T>& PoolOf() {
    static auto* pool = new SlotPool<T>;
    return *pool;
}

// A class's operator new and delete over its pool; a derived class of
// another size goes to the ordinary heap.
template <class T>
void* PoolNew(size_t size) {
    return size == sizeof(T) ? PoolOf<T>().take() : ::operator new(size);
}
template <class T>
void PoolDelete(void* p, size_t size) noexcept {
    if (!p) return;
    if (size == sizeof(T)) PoolOf<T>().give(p);
    else ::operator delete(p);
}

}  // namespace zorv
