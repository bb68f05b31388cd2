// Bookmarks: remembered cursor positions, kept in the order they were set.
#include <algorithm>

#include "ORBFile.h"

namespace {

// Position of the first bookmark with this id, or -1.
long find(const std::vector<BOOKMARK>& list, uint32_t id)
{
    auto it = std::find_if(list.begin(), list.end(), [&](const BOOKMARK& b) { return b.id == id; });
    return it == list.end() ? -1 : long(it - list.begin());
}

} // namespace

int ORBFile::setBookMark(BOOKMARK* bm)
{
    if (!bm || uint32_t(current) >= index.items.size())
        return -1;
    if (find(bookmarks, uint32_t(current)) >= 0)
        return 0;
    bm->id = uint32_t(current);
    bookmarks.push_back(*bm);
    return 0;
}

int ORBFile::gotoBookMark(BOOKMARK* bm)
{
    const long at = bm ? find(bookmarks, bm->id) : -1;
    if (at < 0)
        return -1;
    current = int32_t(bm->id);
    currentBookmark = int32_t(at);
    return 0;
}

int ORBFile::gotoNextBookMark()
{
    int32_t p = currentBookmark + 1;
    if (uint32_t(p) >= bookmarks.size())
        return -1;
    currentBookmark = p;
    current = int32_t(bookmarks[size_t(p)].id);
    return 0;
}

int ORBFile::gotoPreviousBookMark()
{
    int32_t p = currentBookmark - 1;
    if (p < 0 || size_t(p) >= bookmarks.size())
        return -1;
    currentBookmark = p;
    current = int32_t(bookmarks[size_t(p)].id);
    return 0;
}

int ORBFile::removeBookMark(BOOKMARK* bm)
{
    const long at = bm ? find(bookmarks, bm->id) : -1;
    if (at < 0)
        return -1;
    bookmarks.erase(bookmarks.begin() + at);
    if (at <= currentBookmark)
        --currentBookmark;
    return 0;
}
