package com.norvanelab.orbapi;

/**
 * The start or the end of a recording block, read for the item code
 * {@link ORB#RECORDING}; also the block of a {@link Trial}.
 *
 * <p>The byte and 16-bit values are kept in Java bytes and ints; the
 * accessor methods give the unsigned byte values.
 */
public class RecordingInfo {
    /** Time of the block boundary, in milliseconds. */
    public int time;
    /** 1 at the start of a block, 0 at its end. */
    public byte state;
    /** 1 a sample block, 2 an event block, 3 both. */
    public byte recordType;
    /** 1 unless the block's first option value is 1. */
    public byte filterFlag;
    /** 1 when the recording mode value is not 0. */
    public byte modeFlag;
    /** Filter level of the block (0 to 15). */
    public byte modeLevel;
    /** Samples per second in force. */
    public float sampleRate;
    /** Second option byte of the block. */
    public byte blockOption2;
    /** Eyes recorded: 1 left, 2 right, 3 both. */
    public byte eyes;
    /** Flag word of the sample block (0 to 65535). */
    public int sampleFlags;
    /** Flag word of the event block (0 to 65535). */
    public int eventFlags;

    /** Creates an empty record, to be filled by the reader. */
    public RecordingInfo() {
    }

    /**
     * Stores what the native reader passes; the argument order is its wire
     * format (note: the sample flags come before the event flags).
     */
    static void getFilledObject(RecordingInfo target, int time, byte state, byte recordType,
                                byte filterFlag, byte modeFlag, byte modeLevel, float sampleRate,
                                byte blockOption2, byte eyes, int sampleFlags, int eventFlags) {
        if (target == null) {
            return;
        }
        target.time = time;
        target.state = state;
        target.recordType = recordType;
        target.filterFlag = filterFlag;
        target.modeFlag = modeFlag;
        target.modeLevel = modeLevel;
        target.sampleRate = sampleRate;
        target.blockOption2 = blockOption2;
        target.eyes = eyes;
        target.sampleFlags = sampleFlags;
        target.eventFlags = eventFlags;
    }

    /**
     * Whether this is the start of a block.
     *
     * @return true for a block start
     */
    public boolean isStart() {
        return state != 0;
    }

    /**
     * The time of the boundary as an unsigned value.
     *
     * @return milliseconds
     */
    public long getTime() {
        return time & 0xFFFFFFFFL;
    }

    /**
     * The eyes recorded, as an unsigned value.
     *
     * @return 1 left, 2 right, 3 both
     */
    public int getEyes() {
        return eyes & 0xFF;
    }

    /**
     * A copy of this record.
     *
     * @return a new object with the same values
     */
    public RecordingInfo copy() {
        RecordingInfo c = new RecordingInfo();
        getFilledObject(c, time, state, recordType, filterFlag, modeFlag, modeLevel, sampleRate,
                blockOption2, eyes, sampleFlags, eventFlags);
        return c;
    }

    /**
     * A short description: start or end, time, rate and eyes.
     *
     * @return the description
     */
    @Override
    public String toString() {
        return (isStart() ? "block start " : "block end ") + getTime() + " rate=" + sampleRate
                + " eyes=" + getEyes();
    }
}
