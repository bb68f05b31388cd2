package com.norvanelab.orbapi;

import java.io.File;
import java.io.IOException;
import java.util.function.Consumer;

/**
 * An ORB recording of an Oculant eye tracker, opened for reading.
 *
 * <p>A recording is a time-ordered sequence of items: gaze samples, eye
 * movement events (fixations, saccades, blinks), messages, and the markers
 * that open and close recording blocks. Open a file, then step through it
 * and read each item into an object of the matching class:
 *
 * <pre>{@code
 * try (ORB orb = new ORB("run1.orb")) {
 *     int code;
 *     while ((code = orb.next()) != ORB.NO_MORE_ITEMS) {
 *         Object item = orb.read(code);   // Sample, Event or RecordingInfo
 *         ...
 *     }
 * }
 * }</pre>
 *
 * <p>Besides stepping, the position can be moved to an item index, to a
 * trial (a stretch of the recording that begins at a message containing
 * "TRIALID") or to a {@link BookMark}.
 *
 * <p>The reading itself is done by the native library {@code orbapi}. It is
 * loaded when this class is first used: from the file named by the system
 * property {@value #LIBRARY_PROPERTY} when that is set, otherwise by name
 * from {@code java.library.path}.
 *
 * <p>An {@code ORB} object is not thread-safe: use it from one thread at a
 * time. Two recordings must not be read at the same time from different
 * threads, as the native reader keeps some decoding state per process.
 */
public class ORB implements AutoCloseable {

    /** System property that may name the full path of the native library file. */
    public static final String LIBRARY_PROPERTY = "com.norvanelab.orbapi.library";

    /** Item code returned by {@link #next()} when no items are left. */
    public static final int NO_MORE_ITEMS = 0;
    /** Item code: start of a span event. */
    public static final int SSPAN = 1;
    /** Item code: end of a span event. */
    public static final int ESPAN = 2;
    /** Item code: start of a blink. */
    public static final int SBLINK = 3;
    /** Item code: end of a blink. */
    public static final int EBLINK = 4;
    /** Item code: start of a saccade. */
    public static final int SSACC = 5;
    /** Item code: end of a saccade. */
    public static final int ESACC = 6;
    /** Item code: start of a fixation. */
    public static final int SFIX = 7;
    /** Item code: end of a fixation. */
    public static final int EFIX = 8;
    /** Item code: point event. */
    public static final int POINT9 = 9;
    /** Item code: point event. */
    public static final int POINT10 = 10;
    /** Item code: start of a sample block. */
    public static final int SSAMPLES = 15;
    /** Item code: end of a sample block. */
    public static final int ESAMPLES = 16;
    /** Item code: start of an event block. */
    public static final int SEVENTS = 17;
    /** Item code: end of an event block. */
    public static final int EEVENTS = 18;
    /** Item code: a message with text. */
    public static final int MESSAGE = 24;
    /** Item code: point event. */
    public static final int POINT25 = 25;
    /** Item code: point event. */
    public static final int POINT28 = 28;
    /** Item code: start or end of a recording block, read as a {@link RecordingInfo}. */
    public static final int RECORDING = 30;
    /** Item code: one gaze sample, read as a {@link Sample}. */
    public static final int SAMPLE = 200;

    /** Consistency option: no check of the item sequence. */
    public static final int CONSISTENCY_NONE = 0;
    /** Consistency option: check the item sequence. */
    public static final int CONSISTENCY_CHECK = 1;
    /** Consistency option: check the item sequence and repair what is broken. */
    public static final int CONSISTENCY_REPAIR = 2;
    /** Consistency option flag: a damaged item ends the file instead of failing the open. */
    public static final int TOLERANT_SCAN = 4;
    /** Consistency option flag: hand out times as stored, without adjustment. */
    public static final int NO_TIME_ADJUSTMENT = 8;

    private static boolean libraryLoaded;
    private static volatile Consumer<String> logListener;

    static {
        loadNativeLibrary();
    }

    /** Address of the native file object; 0 while no file is open. Read and written by the native side. */
    private long orbID;
    /** Refilled by every trial move; handed out by the trial methods. */
    private final Trial trialObject = new Trial();
    /** The recording block of the current trial; refilled with {@link #trialObject}. */
    private final RecordingInfo recordingObject = new RecordingInfo();

    /** Creates an object with no file open; call {@link #open(String)} next. */
    public ORB() {
    }

    /**
     * Opens a recording with every item indexed and no consistency check.
     *
     * @param path the recording file
     * @throws IOException when the file is missing or corrupt (an
     *         {@link OrbException} that says why)
     */
    public ORB(String path) throws IOException {
        open(path);
    }

    /** Loads the native library once; called by the classes that need it. */
    static synchronized void loadNativeLibrary() {
        if (libraryLoaded) {
            return;
        }
        String path = System.getProperty(LIBRARY_PROPERTY);
        if (path != null && !path.isEmpty()) {
            System.load(new File(path).getAbsolutePath());
        } else {
            System.loadLibrary("orbapi");
        }
        libraryLoaded = true;
    }

    // ------------------------------------------------------------------
    // Native methods
    // ------------------------------------------------------------------

    /**
     * Opens a recording. A file already open on this object is closed when
     * the new one opens; when the new one fails to open the old one stays.
     *
     * @param path the recording file
     * @param consistency one of the {@code CONSISTENCY_} values, optionally
     *        combined with {@link #TOLERANT_SCAN} and {@link #NO_TIME_ADJUSTMENT}
     * @param loadEvents whether events and messages are indexed
     * @param loadSamples whether samples are indexed
     * @param mode frame options for front ends that generate frame messages
     *        (1), a frame lookup table (2) or both (3); 0 for none. This
     *        library generates neither, so the value changes nothing here
     * @return 0 when the file is open
     * @throws IOException an {@link OrbException}: "Could not open ORB File or
     *         the ORB File is corrupt", with the library's reason in
     *         {@link OrbException#getReason()}
     */
    public native int getORBFile(String path, int consistency, boolean loadEvents,
                                 boolean loadSamples, int mode) throws IOException;

    /** Closes the file and frees everything read from it. Does nothing when no file is open. */
    public native void closeORBFile();

    /**
     * Number of trials in the recording.
     *
     * @return the trial count; 0 when no file is open
     */
    public native int getTrialCount();

    /**
     * Sets the texts that mark trials: a trial begins at a message that
     * contains {@code start} and ends at a message that contains {@code end}
     * (or at the next start, or at the end of its recording block). An empty
     * or null text sets no marker. The trials are collected anew.
     *
     * @param start text of the messages that open a trial ("TRIALID" until set)
     * @param end text of the messages that close a trial, or null
     * @return 0; -1 when no file is open
     */
    public native int setTrialIdentifiers(String start, String end);

    /**
     * Revision of the tracker that wrote the recording, from its preamble.
     *
     * @return the revision; 0 when the preamble names none or no file is open
     */
    public native int getRevision();

    /**
     * The preamble of the recording: its header lines, each prefixed by "** ".
     *
     * @return the text, empty when the file has none; null when no file is open
     */
    public native String getPreambleText();

    /**
     * The current position: the index of the item that {@link #next()} steps onto.
     *
     * @return the index; -1 when no file is open
     */
    public native int peakItemIndex();

    /**
     * Number of items in the recording's index.
     *
     * @return the count; 0 when no file is open
     */
    public native int getItemCount();

    /**
     * Steps to the next item.
     *
     * @return its item code, {@link #NO_MORE_ITEMS} past the last item or when no file is open
     */
    public native int getNextData0();

    /**
     * Reads the current item into {@code target}: a {@link Sample} for
     * {@link #SAMPLE}, a {@link RecordingInfo} for {@link #RECORDING}, an
     * {@link Event} for any event code. For any other code the target is
     * left as it is. When the code given is not the item's own, the item is
     * still read, and the mismatch logged.
     *
     * @param target the object to fill
     * @param type the code {@link #getNextData0()} returned
     */
    public native void getFloatData(Object target, int type);

    /**
     * Moves to an item index. An index outside the recording changes nothing.
     *
     * @param position the index of the item that {@link #next()} will step onto
     * @return the number of items in the recording; -1 when no file is open
     */
    public native int gotoIndex(int position);

    /**
     * Moves to the bookmark set before the one last gone to.
     *
     * @return 0, or -1 when there is none
     */
    public native int gotoPreviousBookmark();

    /**
     * Moves to the bookmark set after the one last gone to.
     *
     * @return 0, or -1 when there is none
     */
    public native int gotoNextBookmark();

    /**
     * Moves to a bookmark.
     *
     * @param mark a bookmark of this file
     * @return 0, or -1 when the bookmark is unknown
     */
    public native int gotoBookmark(BookMark mark);

    /**
     * Forgets a bookmark.
     *
     * @param mark a bookmark of this file
     * @return 0, or -1 when the bookmark is unknown
     */
    public native int freeBookmark(BookMark mark);

    /**
     * Remembers the current position. When the position already has a
     * bookmark, or every item has been stepped over, nothing is remembered
     * and the bookmark returned has the id 0.
     *
     * @return a new bookmark; null when no file is open
     */
    public native BookMark setBookmark();

    /**
     * Moves to the first item of a trial.
     *
     * @param trial the trial number, from 0
     * @return the trial, or null when there is no such trial
     */
    public native Trial jumpToTrial(int trial);

    /**
     * Moves to the first trial that ends exactly at a time.
     *
     * @param time the end time in milliseconds
     * @return the trial, or null when none ends then
     */
    public native Trial gotoTrialWithEndTime(int time);

    /**
     * Moves to the first trial that starts exactly at a time.
     *
     * @param time the start time in milliseconds
     * @return the trial, or null when none starts then
     */
    public native Trial gotoTrialWithStartTime(int time);

    /**
     * Moves to the trial after the current one (to the first before any trial move).
     *
     * @return the trial, or null at the last trial
     */
    public native Trial gotoNextTrial();

    /**
     * Moves to the trial before the current one.
     *
     * @return the trial, or null at the first trial
     */
    public native Trial gotoPreviousTrial();

    // ------------------------------------------------------------------
    // Log output
    // ------------------------------------------------------------------

    /**
     * Receives every diagnostic line of the native library while a file is
     * open through this class. The line goes to the listener set with
     * {@link #setLogListener}, or to standard output.
     *
     * @param text one line, ending in a line feed
     */
    public static void printLog(String text) {
        Consumer<String> listener = logListener;
        if (listener != null) {
            listener.accept(text);
        } else {
            System.out.print(text);
            System.out.flush();
        }
    }

    /**
     * Sends the library's diagnostic lines to {@code listener} instead of
     * standard output; null restores standard output.
     *
     * @param listener receives each line, with its line feed
     */
    public static void setLogListener(Consumer<String> listener) {
        logListener = listener;
    }

    // ------------------------------------------------------------------
    // Convenience
    // ------------------------------------------------------------------

    /**
     * Opens a recording with every item indexed and no consistency check.
     *
     * @param path the recording file
     * @throws IOException when the file is missing or corrupt (an
     *         {@link OrbException} that says why)
     */
    public void open(String path) throws IOException {
        open(path, CONSISTENCY_NONE, true, true);
    }

    /**
     * Opens a recording.
     *
     * @param path the recording file
     * @param consistency see {@link #getORBFile}
     * @param loadEvents whether events and messages are indexed
     * @param loadSamples whether samples are indexed
     * @throws IOException when the file is missing or corrupt (an
     *         {@link OrbException} that says why)
     */
    public void open(String path, int consistency, boolean loadEvents, boolean loadSamples)
            throws IOException {
        getORBFile(path, consistency, loadEvents, loadSamples, 0);
    }

    /**
     * Whether a file is open.
     *
     * @return true between a successful open and {@link #close()}
     */
    public boolean isOpen() {
        return orbID != 0;
    }

    /** Closes the file, if one is open. */
    @Override
    public void close() {
        if (orbID != 0) {
            closeORBFile();
        }
    }

    /**
     * Steps to the next item.
     *
     * @return its item code, {@link #NO_MORE_ITEMS} when none is left
     */
    public int next() {
        return getNextData0();
    }

    /**
     * Reads the item that {@link #next()} stepped onto into a new object.
     *
     * @param code the code {@link #next()} returned
     * @return a {@link Sample}, {@link Event} or {@link RecordingInfo}; null
     *         for {@link #NO_MORE_ITEMS} and codes without a record
     */
    public Object read(int code) {
        Object item;
        if (code == SAMPLE) {
            item = new Sample();
        } else if (code == RECORDING) {
            item = new RecordingInfo();
        } else if (isEventCode(code)) {
            item = new Event();
        } else {
            return null;
        }
        getFloatData(item, code);
        return item;
    }

    /**
     * The trial that the last successful trial move went to. The object is
     * refilled by every trial move; copy what is needed to keep.
     *
     * @return the trial object of this file
     */
    public Trial getTrial() {
        return trialObject;
    }

    /**
     * Whether a code is that of an event, read as an {@link Event}.
     *
     * @param code an item code
     * @return true for codes 1 to 10, 15 to 18, 24, 25 and 28
     */
    public static boolean isEventCode(int code) {
        return code >= 0 && code <= 28 && ((0x130787FE >>> code) & 1) != 0;
    }

    /**
     * The name of an item code, for display.
     *
     * @param code an item code
     * @return its name, or "UNKNOWN(code)"
     */
    public static String itemName(int code) {
        switch (code) {
            case NO_MORE_ITEMS: return "NO_MORE_ITEMS";
            case SSPAN: return "SSPAN";
            case ESPAN: return "ESPAN";
            case SBLINK: return "SBLINK";
            case EBLINK: return "EBLINK";
            case SSACC: return "SSACC";
            case ESACC: return "ESACC";
            case SFIX: return "SFIX";
            case EFIX: return "EFIX";
            case POINT9: return "POINT9";
            case POINT10: return "POINT10";
            case SSAMPLES: return "SSAMPLES";
            case ESAMPLES: return "ESAMPLES";
            case SEVENTS: return "SEVENTS";
            case EEVENTS: return "EEVENTS";
            case MESSAGE: return "MESSAGE";
            case POINT25: return "POINT25";
            case POINT28: return "POINT28";
            case RECORDING: return "RECORDING";
            case SAMPLE: return "SAMPLE";
            default: return "UNKNOWN(" + code + ")";
        }
    }
}
