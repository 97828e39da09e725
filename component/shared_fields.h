// Access to the fields that two threads touch while neither holds a lock. Everything is
// sequentially consistent: the stop handshake needs the store of one flag ordered before the load
// of the other.
#ifndef COMPONENT_SHARED_FIELDS_H
#define COMPONENT_SHARED_FIELDS_H

#include <atomic>

template <typename T>
[[nodiscard]] inline T load_shared(T &field)
{
    return std::atomic_ref<T>(field).load();
}

template <typename T>
inline void store_shared(T &field, T value)
{
    std::atomic_ref<T>(field).store(value);
}

template <typename T>
[[nodiscard]] inline T exchange_shared(T &field, T value)
{
    return std::atomic_ref<T>(field).exchange(value);
}

// Changes the field from `from` to `to`. returns false, and changes nothing, when it held another
// value.
template <typename T>
[[nodiscard]] inline bool swap_shared(T &field, T from, T to)
{
    return std::atomic_ref<T>(field).compare_exchange_strong(from, to);
}

#endif
