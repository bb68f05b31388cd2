package com.norvanelab.orbapi;

/**
 * One gaze sample of a recording, read with {@link ORB#read(int)} or
 * {@link ORB#getFloatData(Object, int)} for the item code {@link ORB#SAMPLE}.
 *
 * <p>Arrays of two hold one value per eye: index 0 the left eye, index 1 the
 * right eye. Missing values: -32768.0 for an absent position, pupil or gaze
 * value; 100000000.0 for an absent scaled value, resolution or velocity;
 * 32768 (read as the short -32768) for an absent status or input word; 0 for
 * absent buttons.
 *
 * <p>The 16-bit words are kept in Java shorts; use the accessor methods for
 * their unsigned values.
 */
public class Sample {
    /** Sample time in milliseconds, with the half millisecond of a second sample within one millisecond. */
    public double time;
    /** The sample's flag word as stored (0x8000 left eye, 0x4000 right eye recorded). */
    public short flags;
    /** Raw position x per eye (camera units). */
    public float[] rawX;
    /** Raw position y per eye. */
    public float[] rawY;
    /** Second position x per eye. */
    public float[] secondX;
    /** Second position y per eye. */
    public float[] secondY;
    /** Pupil size per eye. */
    public float[] pupilSize;
    /** Gaze position x per eye. */
    public float[] gazeX;
    /** Gaze position y per eye. */
    public float[] gazeY;
    /** Resolution x (units per degree), both eyes. */
    public float resolutionX;
    /** Resolution y, both eyes. */
    public float resolutionY;
    /** Reserved; always 0. */
    public short reserved;
    /** Input word. */
    public short input;
    /** Buttons word. */
    public short buttons;
    /** Extra-data type byte; its low four bits are the number of extra words. -32768 when absent. */
    public short extraType;
    /** The eight extra-data words (raw pupil and corneal-reflection values). */
    public short[] extraData;
    /** Status word. */
    public short status;
    /** Smoothed gaze velocity x per eye. */
    public float[] gazeVelX;
    /** Smoothed gaze velocity y per eye. */
    public float[] gazeVelY;
    /** Smoothed second-position velocity x per eye. */
    public float[] secondVelX;
    /** Smoothed second-position velocity y per eye. */
    public float[] secondVelY;
    /** Smoothed raw-position velocity x per eye. */
    public float[] rawVelX;
    /** Smoothed raw-position velocity y per eye. */
    public float[] rawVelY;
    /** Two-point gaze velocity x per eye. */
    public float[] fastGazeVelX;
    /** Two-point gaze velocity y per eye. */
    public float[] fastGazeVelY;
    /** Two-point second-position velocity x per eye. */
    public float[] fastSecondVelX;
    /** Two-point second-position velocity y per eye. */
    public float[] fastSecondVelY;
    /** Two-point raw-position velocity x per eye. */
    public float[] fastRawVelX;
    /** Two-point raw-position velocity y per eye. */
    public float[] fastRawVelY;

    /** Creates an empty sample, to be filled by {@link ORB#getFloatData(Object, int)}. */
    public Sample() {
    }

    /** Stores what the native reader passes; the argument order is its wire format. */
    static void getFilledObject(Sample target, double time, short flags, float[] rawX,
                                float[] rawY, float[] secondX, float[] secondY,
                                float[] pupilSize, float[] gazeX, float[] gazeY,
                                float resolutionX, float resolutionY, short reserved,
                                short input, short buttons, short extraType, short[] extraData,
                                short status, float[] gazeVelX, float[] gazeVelY,
                                float[] secondVelX, float[] secondVelY, float[] rawVelX,
                                float[] rawVelY, float[] fastGazeVelX, float[] fastGazeVelY,
                                float[] fastSecondVelX, float[] fastSecondVelY,
                                float[] fastRawVelX, float[] fastRawVelY) {
        if (target == null) {
            return;
        }
        target.time = time;
        target.flags = flags;
        target.rawX = rawX;
        target.rawY = rawY;
        target.secondX = secondX;
        target.secondY = secondY;
        target.pupilSize = pupilSize;
        target.gazeX = gazeX;
        target.gazeY = gazeY;
        target.resolutionX = resolutionX;
        target.resolutionY = resolutionY;
        target.reserved = reserved;
        target.input = input;
        target.buttons = buttons;
        target.extraType = extraType;
        target.extraData = extraData;
        target.status = status;
        target.gazeVelX = gazeVelX;
        target.gazeVelY = gazeVelY;
        target.secondVelX = secondVelX;
        target.secondVelY = secondVelY;
        target.rawVelX = rawVelX;
        target.rawVelY = rawVelY;
        target.fastGazeVelX = fastGazeVelX;
        target.fastGazeVelY = fastGazeVelY;
        target.fastSecondVelX = fastSecondVelX;
        target.fastSecondVelY = fastSecondVelY;
        target.fastRawVelX = fastRawVelX;
        target.fastRawVelY = fastRawVelY;
    }

    /**
     * The flag word as an unsigned value.
     *
     * @return 0 to 65535
     */
    public int getFlags() {
        return flags & 0xFFFF;
    }

    /**
     * The status word as an unsigned value.
     *
     * @return 0 to 65535; 32768 when absent
     */
    public int getStatus() {
        return status & 0xFFFF;
    }

    /**
     * The input word as an unsigned value.
     *
     * @return 0 to 65535; 32768 when absent
     */
    public int getInput() {
        return input & 0xFFFF;
    }

    /**
     * The buttons word as an unsigned value.
     *
     * @return 0 to 65535
     */
    public int getButtons() {
        return buttons & 0xFFFF;
    }

    /**
     * Whether the left eye was recorded in this sample.
     *
     * @return true when flag bit 0x8000 is set
     */
    public boolean hasLeftEye() {
        return (flags & 0x8000) != 0;
    }

    /**
     * Whether the right eye was recorded in this sample.
     *
     * @return true when flag bit 0x4000 is set
     */
    public boolean hasRightEye() {
        return (flags & 0x4000) != 0;
    }

    /**
     * A short description: time, flags and the gaze position per eye.
     *
     * @return the description
     */
    @Override
    public String toString() {
        StringBuilder b = new StringBuilder("Sample ").append(time)
                .append(String.format(" flags=%04x", getFlags()));
        if (gazeX != null && gazeY != null) {
            b.append(" gaze=(").append(gazeX[0]).append(", ").append(gazeY[0]).append(")/(")
                    .append(gazeX[1]).append(", ").append(gazeY[1]).append(')');
        }
        return b.toString();
    }
}
