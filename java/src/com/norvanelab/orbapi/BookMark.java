package com.norvanelab.orbapi;

/**
 * A remembered position in a recording, made by {@link ORB#setBookmark()}
 * and used with {@link ORB#gotoBookmark(BookMark)} and
 * {@link ORB#freeBookmark(BookMark)}.
 */
public class BookMark {
    /** The item index the bookmark stands for. */
    public int bookmarkID;

    /**
     * Creates a bookmark for an item index.
     *
     * @param bookmarkID the item index
     */
    public BookMark(int bookmarkID) {
        this.bookmarkID = bookmarkID;
    }

    /**
     * The item index the bookmark stands for.
     *
     * @return the index
     */
    public int getId() {
        return bookmarkID;
    }

    /**
     * A short description.
     *
     * @return "BookMark " and the index
     */
    @Override
    public String toString() {
        return "BookMark " + bookmarkID;
    }
}
