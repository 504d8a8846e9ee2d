#pragma once

/// An atomic number or pointer for headers that are included everywhere: the standard header takes longer to
/// compile than all of theirs. Relaxed unless the name of an operation says otherwise.
template<class T>
class btkAtomic
{
public:
    constexpr btkAtomic(T initial) : value(initial) {}
    btkAtomic(const btkAtomic&) = delete;
    btkAtomic& operator=(const btkAtomic&) = delete;

    /// Reads without an order; GetAcquire also orders what is read after it.
    T Get() const { return __atomic_load_n(&value, __ATOMIC_RELAXED); }
    T GetAcquire() const { return __atomic_load_n(&value, __ATOMIC_ACQUIRE); }
    /// Writes without an order.
    void Set(T to) { __atomic_store_n(&value, to, __ATOMIC_RELAXED); }
    /// Each of these returns the previous value.
    T Add(T n) { return __atomic_fetch_add(&value, n, __ATOMIC_RELAXED); }
    T SubtractOrdered(T n) { return __atomic_fetch_sub(&value, n, __ATOMIC_ACQ_REL); }
    T Exchange(T to) { return __atomic_exchange_n(&value, to, __ATOMIC_RELAXED); }
    /// Replaces `expected` by `to`. False when the value was a different one, which is then stored in
    /// `expected`.
    bool ReplaceOrdered(T& expected, T to)
    {
        return __atomic_compare_exchange_n(&value, &expected, to, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
    }

private:
    T value;
};
