package com.norvanelab.orbapi;

/**
 * Formats numbers for tab-separated text output of recordings, the way the
 * native converter writes them.
 */
public class DefaultOptionAdapter {

    static {
        ORB.loadNativeLibrary();
    }

    /** Creates an adapter. */
    public DefaultOptionAdapter() {
    }

    /**
     * Formats one number as a tab-separated column, at least seven
     * characters wide after the tab. Precision 0 gives no decimals. A
     * positive precision gives that many decimals while the absolute value
     * stays below 100000 (precision 1), 10000 (precision 2) or 1000
     * (precision 3 or more); at or above the limit the value is written as
     * a tab, a blank and the exponent form with one decimal ("1.2e+05"). A
     * negative precision gives six decimals.
     *
     * @param value the number
     * @param precision the number of decimals
     * @return the column text, starting with a tab
     */
    public native String getFloatValue0(float value, int precision);
}
