// Access to fields that two threads share without a lock. Everything is sequentially consistent:
// the stop handshake needs the store of one flag ordered before the load of the other.
//
// These are the compiler's operations: not every standard library for devices has std::atomic_ref.
#ifndef COMPONENT_SHARED_FIELDS_H
#define COMPONENT_SHARED_FIELDS_H

#include <type_traits>

// True where the machine has the operations for a field, so that no hidden lock is taken.
template <typename T>
inline constexpr bool kIsShareable =
    std::is_trivially_copyable_v<T> && __atomic_always_lock_free(sizeof(T), nullptr);

// Read, write and exchange a field in one step.
template <typename T>
[[nodiscard]] inline T load_shared(T &field)
{
    static_assert(kIsShareable<T>);
    T value;
    __atomic_load(&field, &value, __ATOMIC_SEQ_CST);
    return value;
}

template <typename T>
inline void store_shared(T &field, T value)
{
    static_assert(kIsShareable<T>);
    __atomic_store(&field, &value, __ATOMIC_SEQ_CST);
}

template <typename T>
[[nodiscard]] inline T exchange_shared(T &field, T value)
{
    static_assert(kIsShareable<T>);
    T before;
    __atomic_exchange(&field, &value, &before, __ATOMIC_SEQ_CST);
    return before;
}

// Changes the field from `from` to `to`.
// returns: false, with nothing changed, when it held another value
template <typename T>
[[nodiscard]] inline bool swap_shared(T &field, T from, T to)
{
    static_assert(kIsShareable<T>);
    return __atomic_compare_exchange(&field, &from, &to, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

#endif // COMPONENT_SHARED_FIELDS_H
