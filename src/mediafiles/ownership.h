// Owners. A function holds what it builds in an owner whose deleter calls the
// object's own destroy and keeps errno. An early return then releases
// everything and still reports the first cause.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>

namespace mediafiles {

class errno_saver {
public:
    errno_saver() : saved(errno) { keep_in_place(); }
    ~errno_saver()
    {
        keep_in_place();
        errno = saved;
    }
    errno_saver(const errno_saver &) = delete;
    errno_saver &operator=(const errno_saver &) = delete;

private:
    // Compilers assume that free() keeps errno, and would move the read or drop
    // the assignment. In older C libraries free() can change errno.
    static void keep_in_place() { asm volatile("" ::: "memory"); }

    const int saved;
};

template <auto Destroy>
struct release_with {
    void operator()(auto *object) const
    {
        errno_saver keep;
        Destroy(object);
    }
};

// For objects with their own operation `destroy`.
struct release_itself {
    void operator()(auto *object) const
    {
        errno_saver keep;
        object->destroy(object);
    }
};

template <class T, auto Destroy>
using owned = std::unique_ptr<T, release_with<Destroy>>;

template <class T>
using owned_object = std::unique_ptr<T, release_itself>;

using owned_memory = std::unique_ptr<uint8_t, release_with<free>>;

// A new object on the malloc heap; NULL with errno ENOMEM.
template <class T, class... Arguments>
T *create(Arguments &&...arguments)
{
    void *memory = malloc(sizeof(T));
    return memory ? new (memory) T{std::forward<Arguments>(arguments)...} : nullptr;
}

template <class T>
void destroy(T *object)
{
    object->~T();
    free(object);
}

} // namespace mediafiles
