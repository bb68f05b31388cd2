package com.norvanelab.orbapi;

/**
 * One trial of a recording: the stretch of items from a message that opens
 * it (containing "TRIALID" unless set otherwise with
 * {@link ORB#setTrialIdentifiers}) to the message that closes it, the next
 * trial, or the end of its recording block.
 *
 * <p>The trial methods of {@link ORB} return the same object every time and
 * refill it; use {@link #copy()} to keep one.
 */
public class Trial {
    /** Time of the item that opened the trial, in milliseconds. */
    public int startTime;
    /** Time of the item that closed it; 0 while it was never closed. */
    public int endTime;
    /** The recording block the trial lies in. */
    public RecordingInfo recording;
    /** Index of the trial's first item. */
    public int startIndex;
    /** Index at which the trial ends. */
    public int endIndex;

    /** Creates an empty trial, to be filled by the reader. */
    public Trial() {
    }

    /** Stores what the native reader passes; the argument order is its wire format. */
    static void getFilledObject(Trial target, int startTime, int endTime, RecordingInfo recording,
                                int startIndex, int endIndex) {
        if (target == null) {
            return;
        }
        target.startTime = startTime;
        target.endTime = endTime;
        target.recording = recording;
        target.startIndex = startIndex;
        target.endIndex = endIndex;
    }

    /**
     * The trial's length.
     *
     * @return end time minus start time, in milliseconds
     */
    public long getDuration() {
        return (endTime & 0xFFFFFFFFL) - (startTime & 0xFFFFFFFFL);
    }

    /**
     * A copy of this trial and of its recording block.
     *
     * @return a new object with the same values
     */
    public Trial copy() {
        Trial c = new Trial();
        getFilledObject(c, startTime, endTime, recording == null ? null : recording.copy(),
                startIndex, endIndex);
        return c;
    }

    /**
     * A short description: times and item range.
     *
     * @return the description
     */
    @Override
    public String toString() {
        return "Trial " + (startTime & 0xFFFFFFFFL) + "-" + (endTime & 0xFFFFFFFFL) + " items "
                + startIndex + ".." + endIndex;
    }
}
