// Making memory present ahead of its first use: the system's work of
// providing fresh pages (zeroing, mapping) done at once, on a thread that
// has time for it, instead of at every first write.
#ifndef ORBAPI_PAGES_H
#define ORBAPI_PAGES_H

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

namespace pages {

// Makes the pages that hold the bytes [from, to) present and writable,
// without changing their contents; safe while other threads use them.
// False when the system cannot (then they appear at first write).
inline bool makePresent(const void* from, const void* to)
{
#ifdef MADV_POPULATE_WRITE
    static const uintptr_t page = uintptr_t(sysconf(_SC_PAGESIZE));
    const uintptr_t first = reinterpret_cast<uintptr_t>(from) & ~(page - 1);
    const uintptr_t last = reinterpret_cast<uintptr_t>(to);
    return last <= first || madvise(reinterpret_cast<void*>(first), last - first, MADV_POPULATE_WRITE) == 0;
#else
    (void)from;
    (void)to;
    return false;
#endif
}

} // namespace pages

#endif
