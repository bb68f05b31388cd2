// The introspective sort that orders the item index.
//
// It is, step for step, the quick sort of the GNU C++ library (GCC 12):
// median of three moved to the front, the unguarded Hoare partition, a
// depth limit of 2*floor(log2 n) after which a range is heap sorted, and a
// final insertion sort whose first 16 entries are guarded and the rest not.
// Entries the comparator leaves unordered therefore come out exactly where
// that sort puts them.
//
// The index's comparator is not a strict weak ordering (a blink start and a
// blink end of different eyes at one instant each go before the other;
// non-paired events compare equal positions as "before", so an entry can go
// before itself).  With such a comparator the library's unguarded loops can
// run past either end of the array.  Here every one of them is bounded by
// the array handed to the sort, and the sort's work is bounded too:
//  - a partition scan that reaches an end of the array (where the library
//    would read outside it) or partitions that together scan more entries
//    than a consistent comparator ever lets them switch the ranges still to
//    do to heap sort;
//  - once the final insertion pass has moved entries more places in all
//    than a consistent comparator ever needs (15 per entry), each further
//    entry moves at most 16 places.
// A consistent comparator never reaches these bounds, nor does the index of
// any real recording; where the library's sort stays inside the array and
// within them, the two give the same order, comparison for comparison.
// Only thousands of mutually inconsistent entries at one instant, which a
// damaged or forged file can hold, meet them, and then the sort still ends
// in O(n log n) instead of the library's quadratic time.
#ifndef ORBAPI_ITEMSORT_H
#define ORBAPI_ITEMSORT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>
#include <vector>

namespace orbsort {

// A comparator may order by a key first: then it has key(x), and tied(a, b)
// decides between entries of one key.  The sort's inner loops then take the
// key of the entry they compare against once, not at every comparison; the
// outcome of every comparison stays the comparator's.
template <class Comp, class T, class = void>
struct HasKey : std::false_type {};
template <class Comp, class T>
struct HasKey<Comp, T, std::void_t<decltype(std::declval<Comp>().key(std::declval<const T&>())),
                                   decltype(std::declval<Comp>().tied(std::declval<const T&>(), std::declval<const T&>()))>>
    : std::true_type {};

template <class T, class Comp>
class IntroSorter {
public:
    IntroSorter(T* first, T* last, Comp comp) : begin_(first), end_(last), comp_(comp) {}

    void run()
    {
        const std::ptrdiff_t n = end_ - begin_;
        if (n <= 0)
            return;
        const int depth = 2 * floorLog2(uint64_t(n));
        // Partitions whose ranges nest, as they always do with a consistent
        // comparator, scan fewer than (depth + 1) * n entries in all.
        budget_ = (int64_t(depth) + 2) * int64_t(n) + 64;
        moveBudget_ = 64 * int64_t(n) + 1024;
        introsortLoop(begin_, end_, depth);
        finalInsertionSort(begin_, end_);
    }

private:
    static constexpr std::ptrdiff_t kThreshold = 16;

    static int floorLog2(uint64_t n) { return 63 - __builtin_clzll(n); }

    bool less(const T& a, const T& b) { return comp_(a, b); }

    // less() against one fixed entry `b` (or `a`), its key taken once.
    struct Fixed {
        Comp& comp;
        const T& entry;
        decltype(std::declval<Comp>().key(std::declval<const T&>())) key;
        bool before(const T& a) const // less(a, entry)
        {
            const auto k = comp.key(a);
            return k != key ? k < key : comp.tied(a, entry);
        }
        bool after(const T& b) const // less(entry, b)
        {
            const auto k = comp.key(b);
            return k != key ? key < k : comp.tied(entry, b);
        }
    };

    void introsortLoop(T* first, T* last, int depth)
    {
        while (last - first > kThreshold) {
            if (depth == 0 || degraded_) {
                heapSort(first, last);
                return;
            }
            --depth;
            T* cut = partitionPivot(first, last);
            introsortLoop(cut, last, depth);
            last = cut;
        }
    }

    T* partitionPivot(T* first, T* last)
    {
        T* mid = first + (last - first) / 2;
        moveMedianToFirst(first, first + 1, mid, last - 1);
        return partition(first + 1, last, first);
    }

    void moveMedianToFirst(T* result, T* a, T* b, T* c)
    {
        if (less(*a, *b)) {
            if (less(*b, *c))
                std::iter_swap(result, b);
            else if (less(*a, *c))
                std::iter_swap(result, c);
            else
                std::iter_swap(result, a);
        } else if (less(*a, *c)) {
            std::iter_swap(result, a);
        } else if (less(*b, *c)) {
            std::iter_swap(result, c);
        } else {
            std::iter_swap(result, b);
        }
    }

    // Hoare partition of [first, last) around *pivot.  The library leans on
    // sentinels that a consistent comparator guarantees; here both scans
    // stop at the ends of the array.
    T* partition(T* first, T* last, T* pivot)
    {
        if constexpr (HasKey<Comp, T>::value) {
            const Fixed fixed{comp_, *pivot, comp_.key(*pivot)};
            return partitionWith([&](const T& a) { return fixed.before(a); },
                                 [&](const T& b) { return fixed.after(b); }, first, last);
        } else {
            return partitionWith([&](const T& a) { return less(a, *pivot); },
                                 [&](const T& b) { return less(*pivot, b); }, first, last);
        }
    }

    // The partition with beforePivot(x) = less(x, *pivot) and afterPivot(x)
    // = less(*pivot, x); the pivot lies outside [first, last).
    template <class Before, class After>
    T* partitionWith(Before beforePivot, After afterPivot, T* first, T* last)
    {
        T* const start = first;
        T* const stop = last;
        for (;;) {
            while (first != end_ && beforePivot(*first))
                ++first;
            if (first == end_)
                degraded_ = true;
            --last;
            while (afterPivot(*last)) {
                if (last == begin_) {
                    degraded_ = true;
                    break;
                }
                --last;
            }
            if (!(first < last)) {
                budget_ -= (first - start) + (stop - last);
                if (budget_ < 0)
                    degraded_ = true;
                return first;
            }
            std::iter_swap(first, last);
            ++first;
        }
    }

    void finalInsertionSort(T* first, T* last)
    {
        if (last - first > kThreshold) {
            insertionSort(first, first + kThreshold);
            for (T* i = first + kThreshold; i != last; ++i)
                linearInsert(i);
        } else {
            insertionSort(first, last);
        }
    }

    void insertionSort(T* first, T* last)
    {
        if (first == last)
            return;
        for (T* i = first + 1; i != last; ++i) {
            if (less(*i, *first)) {
                T value = std::move(*i);
                std::move_backward(first, i, i + 1);
                *first = std::move(value);
            } else {
                linearInsert(i);
            }
        }
    }

    // Moves *last back to where it belongs; never below the array's start,
    // and no more than kThreshold places once the move budget is spent.
    void linearInsert(T* last)
    {
        T* const from = last;
        T* const stop = moveBudget_ >= 0 || last - begin_ <= kThreshold ? begin_ : last - kThreshold;
        T value = std::move(*last);
        T* next = last - 1;
        auto goesBefore = [&](const T& x) { // less(value, x)
            if constexpr (HasKey<Comp, T>::value)
                return Fixed{comp_, value, comp_.key(value)}.after(x);
            else
                return less(value, x);
        };
        while (goesBefore(*next)) {
            *last = std::move(*next);
            last = next;
            if (last == stop)
                break;
            --next;
        }
        *last = std::move(value);
        moveBudget_ -= from - last;
    }

    // make_heap followed by sort_heap, as the library does them.
    void heapSort(T* first, T* last)
    {
        const std::ptrdiff_t len = last - first;
        if (len >= 2) {
            for (std::ptrdiff_t parent = (len - 2) / 2;; --parent) {
                T value = std::move(first[parent]);
                adjustHeap(first, parent, len, std::move(value));
                if (parent == 0)
                    break;
            }
        }
        while (last - first > 1) {
            --last;
            T value = std::move(*last);
            *last = std::move(*first);
            adjustHeap(first, 0, last - first, std::move(value));
        }
    }

    void adjustHeap(T* first, std::ptrdiff_t hole, std::ptrdiff_t len, T value)
    {
        const std::ptrdiff_t top = hole;
        std::ptrdiff_t child = hole;
        while (child < (len - 1) / 2) {
            child = 2 * (child + 1);
            if (less(first[child], first[child - 1]))
                --child;
            first[hole] = std::move(first[child]);
            hole = child;
        }
        if ((len & 1) == 0 && child == (len - 2) / 2) {
            child = 2 * (child + 1);
            first[hole] = std::move(first[child - 1]);
            hole = child - 1;
        }
        std::ptrdiff_t parent = (hole - 1) / 2;
        while (hole > top && less(first[parent], value)) {
            first[hole] = std::move(first[parent]);
            hole = parent;
            parent = (hole - 1) / 2;
        }
        first[hole] = std::move(value);
    }

    T* const begin_;
    T* const end_;
    Comp comp_;
    int64_t budget_ = 0;     // entries partitions may still scan
    int64_t moveBudget_ = 0; // places the insertion pass may still move entries
    bool degraded_ = false;  // remaining ranges are heap sorted
};

// Sorts [first, last) with comp (comp(a, b): a goes before b).
template <class T, class Comp>
void introsort(T* first, T* last, Comp comp)
{
    IntroSorter<T, Comp>(first, last, comp).run();
}

// The same order as introsort, found faster when the range is nearly in
// order.  An insertion sort with a bounded number of moves orders a copy;
// when the comparator then proves to be a strict total order on the range
// (every entry strictly before every later one: checked between
// neighbours of different rank, and pairwise within runs that `sameRank`
// groups, such as entries of one instant), that order is the only one any
// correct sort can give, introsort's included.  Otherwise, or when the
// range is far from ordered, introsort orders the range itself.
// `scratch` is reused between calls.  True when the shortcut held.
template <class T, class Comp, class SameRank>
bool sortNearlyOrdered(T* first, T* last, Comp comp, SameRank sameRank, std::vector<T>& scratch)
{
    constexpr std::ptrdiff_t kLongestRun = 32;
    const std::ptrdiff_t n = last - first;
    scratch.assign(first, last);
    T* const v = scratch.data();
    int64_t moves = 8 * int64_t(n) + 64;
    bool ordered = true;
    for (std::ptrdiff_t i = 1; i < n && ordered; ++i) {
        T value = v[i];
        std::ptrdiff_t j = i;
        while (j > 0 && comp(value, v[j - 1])) {
            v[j] = v[j - 1];
            --j;
            if (--moves < 0) {
                ordered = false;
                break;
            }
        }
        v[j] = value;
    }
    for (std::ptrdiff_t i = 0; i < n && ordered;) {
        std::ptrdiff_t end = i + 1;
        while (end < n && sameRank(v[i], v[end]))
            ++end;
        if (end - i > kLongestRun)
            ordered = false;
        for (std::ptrdiff_t p = i; p < end && ordered; ++p)
            for (std::ptrdiff_t q = p + 1; q < end && ordered; ++q)
                ordered = comp(v[p], v[q]) && !comp(v[q], v[p]);
        if (ordered && end < n)
            ordered = comp(v[end - 1], v[end]) && !comp(v[end], v[end - 1]);
        i = end;
    }
    if (ordered)
        std::copy(v, v + n, first);
    else
        introsort(first, last, comp);
    return ordered;
}

} // namespace orbsort

#endif
