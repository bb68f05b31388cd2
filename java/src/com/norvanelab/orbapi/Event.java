package com.norvanelab.orbapi;

/**
 * One event of a recording: a fixation, saccade or blink start or end, a
 * message, a block start or end, or a point event. Read with
 * {@link ORB#read(int)} or {@link ORB#getFloatData(Object, int)} for an
 * event code ({@link ORB#isEventCode(int)}).
 *
 * <p>Which value groups the item carried is told by {@link #contents}; the
 * others keep the reader's preset values. A scaled value whose stored word
 * was missing reads 100000000.0. For the block starts {@link ORB#SSAMPLES}
 * and {@link ORB#SEVENTS}, {@link #avgPupil} holds the sample rate.
 *
 * <p>Times are milliseconds, kept in Java ints; use the accessor methods
 * for their unsigned values.
 */
public class Event {
    /** Time of the item. */
    public int time;
    /** Item code ({@link ORB#SFIX}, {@link ORB#MESSAGE}, ...). */
    public short type;
    /** Bits telling which value groups the item carried. */
    public short contents;
    /** 0 left eye, 1 right eye. */
    public short eye;
    /** Start time of the event. */
    public int startTime;
    /** End time of the event; 0 when the item carried no time. */
    public int endTime;
    /** Position at the start, x. */
    public float startPosX;
    /** Position at the start, y. */
    public float startPosY;
    /** Gaze position at the start, x. */
    public float startGazeX;
    /** Gaze position at the start, y. */
    public float startGazeY;
    /** Start value of the scalar group. */
    public float startScalar;
    /** Position at the end, x. */
    public float endPosX;
    /** Position at the end, y. */
    public float endPosY;
    /** Gaze position at the end, x. */
    public float endGazeX;
    /** Gaze position at the end, y. */
    public float endGazeY;
    /** End value of the scalar group. */
    public float endScalar;
    /** Average position, x. */
    public float avgPosX;
    /** Average position, y. */
    public float avgPosY;
    /** Average gaze position, x. */
    public float avgGazeX;
    /** Average gaze position, y. */
    public float avgGazeY;
    /** Average value of the scalar group. */
    public float avgScalar;
    /** Average pupil; the sample rate for block starts. */
    public float avgPupil;
    /** Second pupil value. */
    public float peakPupil;
    /** Pupil at the start. */
    public float startPupil;
    /** Pupil at the end. */
    public float endPupil;
    /** Resolution x at the start. */
    public float startResX;
    /** Resolution x at the end. */
    public float endResX;
    /** Resolution y at the start. */
    public float startResY;
    /** Resolution y at the end. */
    public float endResY;
    /** Carried without interpretation. */
    public short aux0;
    /** Block flag word. */
    public short blockFlags;
    /** Second block flag word. */
    public short blockFlags2;
    /** Block option word. */
    public short blockOption;
    /** Low byte of the item's tag, bit 0 cleared. */
    public short itemTag;
    /**
     * Text of a {@link ORB#MESSAGE} item, at most 139 characters, without a
     * trailing line feed; empty for other items.
     */
    public String message = "";

    /** Creates an empty event, to be filled by {@link ORB#getFloatData(Object, int)}. */
    public Event() {
    }

    /** Stores what the native reader passes; the argument order is its wire format. */
    static void getFilledObject(Event target, int time, short type, short contents, short eye,
                                int startTime, int endTime, float startPosX, float startPosY,
                                float startGazeX, float startGazeY, float startScalar,
                                float endPosX, float endPosY, float endGazeX, float endGazeY,
                                float endScalar, float avgPosX, float avgPosY, float avgGazeX,
                                float avgGazeY, float avgScalar, float avgPupil, float peakPupil,
                                float startPupil, float endPupil, float startResX, float endResX,
                                float startResY, float endResY, short aux0, short blockFlags,
                                short blockFlags2, short blockOption, short itemTag,
                                String message) {
        if (target == null) {
            return;
        }
        target.time = time;
        target.type = type;
        target.contents = contents;
        target.eye = eye;
        target.startTime = startTime;
        target.endTime = endTime;
        target.startPosX = startPosX;
        target.startPosY = startPosY;
        target.startGazeX = startGazeX;
        target.startGazeY = startGazeY;
        target.startScalar = startScalar;
        target.endPosX = endPosX;
        target.endPosY = endPosY;
        target.endGazeX = endGazeX;
        target.endGazeY = endGazeY;
        target.endScalar = endScalar;
        target.avgPosX = avgPosX;
        target.avgPosY = avgPosY;
        target.avgGazeX = avgGazeX;
        target.avgGazeY = avgGazeY;
        target.avgScalar = avgScalar;
        target.avgPupil = avgPupil;
        target.peakPupil = peakPupil;
        target.startPupil = startPupil;
        target.endPupil = endPupil;
        target.startResX = startResX;
        target.endResX = endResX;
        target.startResY = startResY;
        target.endResY = endResY;
        target.aux0 = aux0;
        target.blockFlags = blockFlags;
        target.blockFlags2 = blockFlags2;
        target.blockOption = blockOption;
        target.itemTag = itemTag;
        target.message = message == null ? "" : message;
    }

    /**
     * The item code as an unsigned value.
     *
     * @return the code
     */
    public int getType() {
        return type & 0xFFFF;
    }

    /**
     * The time of the item as an unsigned value.
     *
     * @return milliseconds
     */
    public long getTime() {
        return time & 0xFFFFFFFFL;
    }

    /**
     * The start time as an unsigned value.
     *
     * @return milliseconds
     */
    public long getStartTime() {
        return startTime & 0xFFFFFFFFL;
    }

    /**
     * The end time as an unsigned value.
     *
     * @return milliseconds
     */
    public long getEndTime() {
        return endTime & 0xFFFFFFFFL;
    }

    /**
     * A short description: code, start time, end time when there is one,
     * eye and, for a message, its text.
     *
     * @return the description
     */
    @Override
    public String toString() {
        StringBuilder b = new StringBuilder(ORB.itemName(getType())).append(' ')
                .append(getStartTime());
        if (endTime != 0) {
            b.append('-').append(getEndTime());
        }
        b.append(" eye=").append(eye);
        if (!message.isEmpty()) {
            b.append(" \"").append(message).append('"');
        }
        return b.toString();
    }
}
