#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <sys/single_threaded.h>
#include <utility>
#include <vector>

/// Only what the release of an object's last reference cannot do without. The root of the classes is a virtual base, and
/// stands in a library. A class may override the release, whether the object may be deleted, what is done before, and the
/// destruction. Where there are threads, others may release it at the same time, and destructors run one at a time in the
/// process. A chain of objects that release each other must not grow the stack: its length is counted, and objects too
/// deep in it wait for the first.
class LeastRoot
{
public:
    LeastRoot() = default;
    LeastRoot(const LeastRoot&) = delete;
    LeastRoot& operator=(const LeastRoot&) = delete;
    virtual ~LeastRoot() = default;
    virtual bool isDeletable() { return true; }
    virtual void onDelete() {}
    [[gnu::noinline]] virtual void attach() { ++count; }
    [[gnu::noinline]] virtual void release()
    {
        if (count.load(std::memory_order_acquire) != 1 && count.fetch_sub(1) > 1)
            return;
        if (!isDeletable())
            return;
        if (depth > deepest)
            return wait();
        const bool locks = !__libc_single_threaded && depth == 0;
        while (locks && isDestroying.exchange(true, std::memory_order_acquire)) {
        }
        die();
        if (depth == 0 && waiting != nullptr)
            dieAll();
        if (locks)
            isDestroying.store(false, std::memory_order_release);
    }

    /// In place where there is one thread and another holder. Classes may override the first and the last.
    void attachOne()
    {
        if (const int held = count.load(std::memory_order_relaxed); held > 0 && __libc_single_threaded)
            count.store(held + 1, std::memory_order_relaxed);
        else
            attach();
    }
    void releaseOne()
    {
        if (const int held = count.load(std::memory_order_relaxed); held > 1 && __libc_single_threaded)
            count.store(held - 1, std::memory_order_relaxed);
        else
            release();
    }

private:
    static constexpr int deepest = 200;

    void die()
    {
        ++depth;
        onDelete();
        delete this;
        --depth;
    }
    [[gnu::noinline]] void wait()
    {
        if (waiting == nullptr)
            waiting = new std::vector<LeastRoot*>;
        waiting->push_back(this);
    }
    [[gnu::noinline]] static void dieAll()
    {
        for (std::vector<LeastRoot*>& all = *waiting; !all.empty();) {
            LeastRoot* const last = all.back();
            all.pop_back();
            last->die();
        }
        delete std::exchange(waiting, nullptr);
    }

    std::atomic<int> count = 1;
    static inline std::atomic<bool> isDestroying = false;
    static inline constinit thread_local int depth = 0;
    static inline constinit thread_local std::vector<LeastRoot*>* waiting = nullptr;
};

/// The least of a handle: it may hold null, or a marker in place of an object.
template<class T>
class LeastHandle
{
public:
    explicit LeastHandle(T* made) : object(made) {}
    LeastHandle(const LeastHandle&) = delete;
    LeastHandle& operator=(const LeastHandle&) = delete;
    ~LeastHandle()
    {
        if (reinterpret_cast<std::uintptr_t>(object) > 22)
            object->release();
    }
    T* operator->() const { return object; }

private:
    T* object;
};

class LeastObject : public virtual LeastRoot
{
};

/// The least of a sequence: an object; classes may override how their sequences append, grow, copy and remove; the number
/// of elements is kept in the sequence; the capacity grows by blocks of 256 bytes, or as many as the sequence was made
/// with, which are zero where there is no element. A sequence may be assigned a part of itself, keeps its blocks, holds
/// less than 2 GiB, and is unchanged when memory runs out.
class LeastSequence : public virtual LeastRoot
{
public:
    ~LeastSequence() override { std::free(data); }
    virtual void append(int value)
    {
        if (used < capacity)
            data[used++] = value;
        else
            grow(value);
    }
    void assign(const std::vector<int>& range)
    {
        if (range.size() > most)
            throw std::length_error("too many elements");
        if (range.data() >= data && range.data() < data + used)
            return assign(std::vector<int>(range));
        replace(range.data(), static_cast<unsigned>(range.size()));
    }

private:
    static constexpr std::size_t most = 0x7fffffff / sizeof(int);

    /// In a library.
    [[gnu::noinline]] void replace(const int* from, unsigned n)
    {
        if (used != 0)
            remove(0, used);
        const unsigned blocks =
            (block & (block - 1)) == 0 ? (n + block - 1) & ~(block - 1) : (n + block - 1) / block * block;
        if (blocks > capacity) {
            resize(blocks);
            capacity = blocks;
            std::memset(data + n, 0, (capacity - n) * sizeof *data);
        }
        copy(data, from, n);
        used = n;
    }
    [[gnu::noinline]] void grow(int value)
    {
        if (capacity + block > room)
            resize(std::max(block, 2 * room));
        std::memset(data + capacity, 0, block * sizeof *data);
        capacity += block;
        data[used++] = value;
    }
    virtual void resize(unsigned n)
    {
        void* const grown = std::realloc(data, n * sizeof *data);
        if (grown == nullptr)
            throw std::bad_alloc();
        data = static_cast<int*>(grown);
        room = n;
    }
    virtual void copy(int* to, const int* from, unsigned n) { std::memcpy(to, from, n * sizeof *to); }
    virtual void remove(unsigned from, unsigned to)
    {
        std::memset(data + from, 0, (to - from) * sizeof *data);
        used = from;
    }

    int* data = nullptr;
    unsigned used = 0, capacity = 0, room = 0, block = 64;
};
