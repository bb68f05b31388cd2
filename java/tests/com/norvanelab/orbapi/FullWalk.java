package com.norvanelab.orbapi;

/**
 * Walks a whole recording through the binding, reading every item and
 * every trial, and prints one closing line with the counts. Run by the
 * tests in a separate runtime with JNI checking switched on, whose output
 * must then hold nothing but that line.
 */
public final class FullWalk {
    private FullWalk() {
    }

    /**
     * Walks the recording named by the first argument.
     *
     * @param args the recording file
     * @throws Exception when the file cannot be opened
     */
    public static void main(String[] args) throws Exception {
        int samples = 0;
        int events = 0;
        int recordings = 0;
        int messages = 0;
        int items = 0;
        int trials = 0;
        ORB.setLogListener(line -> System.out.print("log: " + line));
        try (ORB orb = new ORB(args[0])) {
            Sample sample = new Sample();
            Event event = new Event();
            RecordingInfo recording = new RecordingInfo();
            int code;
            while ((code = orb.getNextData0()) != ORB.NO_MORE_ITEMS) {
                ++items;
                if (code == ORB.SAMPLE) {
                    orb.getFloatData(sample, code);
                    ++samples;
                } else if (code == ORB.RECORDING) {
                    orb.getFloatData(recording, code);
                    ++recordings;
                } else {
                    orb.getFloatData(event, code);
                    ++events;
                    if (code == ORB.MESSAGE && !event.message.isEmpty()) {
                        ++messages;
                    }
                }
            }
            int count = orb.getTrialCount();
            for (int i = 0; i < count; ++i) {
                if (orb.jumpToTrial(i) != null) {
                    ++trials;
                }
            }
            if (items != orb.getItemCount()) {
                System.out.println("walked " + items + " of " + orb.getItemCount() + " items");
                System.exit(1);
            }
        }
        System.out.println("walked " + items + " items: " + samples + " samples, " + events
                + " events (" + messages + " messages), " + recordings + " recordings, "
                + trials + " trials");
    }
}
