package com.norvanelab.orbapi;

import java.io.ByteArrayOutputStream;
import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.lang.reflect.Field;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

/**
 * Tests of the Java binding, run as a plain program:
 *
 * <pre>
 * java -Xcheck:jni -Djava.library.path=DIR -Dorbapi.fixtures=MAKE_RECORDINGS
 *      -Dorbapi.dumper=ORB_DUMP -Dorbapi.workdir=DIR -cp ... com.norvanelab.orbapi.OrbTest
 * </pre>
 *
 * The recordings are written by the fixture tool make_recordings; orb_dump
 * prints a recording as the function interface reads it. The program ends
 * with the line "N passed, N failed" and exits non-zero on a failure.
 */
public final class OrbTest {
    private static int passed;
    private static int failed;
    private static final List<String> problems = new ArrayList<>();
    private static final List<String> log = new ArrayList<>();

    private static File dir;

    private OrbTest() {
    }

    private interface Body {
        void run() throws Exception;
    }

    private static void test(String name, Body body) {
        problems.clear();
        log.clear();
        try {
            body.run();
        } catch (Throwable t) {
            problems.add("threw " + t);
        }
        if (problems.isEmpty()) {
            ++passed;
            System.out.println("ok   " + name);
        } else {
            ++failed;
            System.out.println("FAIL " + name);
            for (String p : problems) {
                System.out.println("     " + p);
            }
        }
    }

    private static void check(boolean ok, String what) {
        if (!ok) {
            problems.add(what);
        }
    }

    private static void equal(Object expected, Object actual, String what) {
        if (expected == null ? actual != null : !expected.equals(actual)) {
            problems.add(what + ": expected <" + expected + "> but was <" + actual + ">");
        }
    }

    private static String path(String name) {
        return new File(dir, name).getPath();
    }

    private static long orbID(ORB orb) throws Exception {
        Field f = ORB.class.getDeclaredField("orbID");
        f.setAccessible(true);
        return f.getLong(orb);
    }

    /** Runs a program and returns its output; with withErrors its error stream too. */
    private static String run(List<String> command, boolean withErrors) throws Exception {
        ProcessBuilder b = new ProcessBuilder(command);
        if (withErrors) {
            b.redirectErrorStream(true);
        } else {
            b.redirectError(ProcessBuilder.Redirect.DISCARD);
        }
        Process p = b.start();
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        try (InputStream in = p.getInputStream()) {
            in.transferTo(out);
        }
        int rc = p.waitFor();
        String text = out.toString(StandardCharsets.UTF_8);
        if (rc != 0) {
            throw new IOException(command + " exited with " + rc + ":\n" + text);
        }
        return text;
    }

    /** Steps until an item with the code is reached; false when none is left. */
    private static boolean stepTo(ORB orb, int wanted) {
        int code;
        while ((code = orb.getNextData0()) != ORB.NO_MORE_ITEMS) {
            if (code == wanted) {
                return true;
            }
        }
        return false;
    }

    /** Every item of the file, read into new objects. */
    private static List<Object> readAll(String file) throws IOException {
        List<Object> items = new ArrayList<>();
        try (ORB orb = new ORB(file)) {
            int code;
            while ((code = orb.getNextData0()) != ORB.NO_MORE_ITEMS) {
                items.add(orb.read(code));
            }
        }
        return items;
    }

    private static Event messageAt(List<Object> items, int time) {
        for (Object o : items) {
            if (o instanceof Event && ((Event) o).getType() == ORB.MESSAGE
                    && ((Event) o).startTime == time) {
                return (Event) o;
            }
        }
        return null;
    }

    private static Sample sampleAt(List<Object> items, double time) {
        for (Object o : items) {
            if (o instanceof Sample && ((Sample) o).time == time) {
                return (Sample) o;
            }
        }
        return null;
    }

    /**
     * Runs every test.
     *
     * @param args unused
     * @throws Exception when the recordings cannot be written
     */
    public static void main(String[] args) throws Exception {
        dir = new File(System.getProperty("orbapi.workdir", "."));
        dir.mkdirs();
        run(List.of(System.getProperty("orbapi.fixtures"), dir.getPath()), true);
        ORB.setLogListener(log::add);

        test("a walk gives the records of the function interface", OrbTest::walkMatchesDump);
        test("samples carry time, words and arrays as stored", OrbTest::sampleValues);
        test("message texts are cut like the converter's", OrbTest::messageTexts);
        test("a type mismatch still fills the target", OrbTest::typeMismatch);
        test("codes without a record leave the target alone", OrbTest::codesWithoutRecord);
        test("trial navigation", OrbTest::trialNavigation);
        test("trial identifiers: empty means none", OrbTest::trialIdentifiers);
        test("bookmarks", OrbTest::bookmarks);
        test("open failures throw and keep orbID", OrbTest::openFailures);
        test("a refused file says why", OrbTest::refusalReasons);
        test("a closed file refuses every call", OrbTest::closedFile);
        test("preamble text and revision", OrbTest::preamble);
        test("float columns", OrbTest::floatColumns);
        test("a full walk under JNI checks is quiet", OrbTest::fullWalkUnderChecks);

        System.out.println(passed + " passed, " + failed + " failed");
        System.exit(failed == 0 ? 0 : 1);
    }

    // ----------------------------------------------------------------------

    private static void walkMatchesDump() throws Exception {
        for (String name : new String[] {"walk.orb", "empty_preamble.orb"}) {
            String expected = run(List.of(System.getProperty("orbapi.dumper"), path(name)), false);
            String actual;
            try (ORB orb = new ORB(path(name))) {
                actual = RecordText.dump(orb);
            }
            String[] e = expected.split("\n", -1);
            String[] a = actual.split("\n", -1);
            int n = Math.min(e.length, a.length);
            for (int i = 0; i < n; ++i) {
                if (!e[i].equals(a[i])) {
                    problems.add(name + " line " + (i + 1) + "\n  C:    " + e[i] + "\n  Java: " + a[i]);
                    break;
                }
            }
            equal(e.length, a.length, name + " line count");
            check(expected.contains("\n@1 30 "), name + ": the dump starts with a block");
        }
        check(!log.contains("Types not matched \n"), "no type mismatch on a walk");
    }

    private static void sampleValues() throws Exception {
        List<Object> items = readAll(path("walk.orb"));
        Sample first = sampleAt(items, 1000.5);
        check(first != null, "the sample flagged 0x0002 at 1000 arrives at 1000.5");
        check(sampleAt(items, 1000.0) == null, "and not at 1000.0");
        if (first != null) {
            equal((short) 128, first.extraType, "extraType 0x80");
            equal(0x1234, first.getInput(), "input");
            equal(5, first.getButtons(), "buttons");
            equal(38.0f, first.resolutionX, "resolution x over the divisor 10");
            equal(-32768.0f, first.gazeX[1], "gaze of the eye not recorded");
            check(first.hasLeftEye() && !first.hasRightEye(), "eye flags");
        }
        Sample plain = sampleAt(items, 1001.0);
        check(plain != null, "sample at 1001");
        if (plain != null) {
            equal((short) -32768, plain.extraType, "absent extraType");
            equal(32768, plain.getInput(), "absent input");
            equal(0, plain.getButtons(), "absent buttons");
        }
        Sample extra = sampleAt(items, 1003.0);
        if (extra != null) {
            equal((short) 0x13, extra.extraType, "extraType with three words");
            equal(Arrays.toString(new short[] {0x0101, 0x0202, (short) 0xFFFF, 0, 0, 0, 0, 0}),
                    Arrays.toString(extra.extraData), "extra words");
        } else {
            problems.add("sample at 1003");
        }
        int samples = 0;
        for (Object o : items) {
            if (o instanceof Sample) {
                Sample s = (Sample) o;
                ++samples;
                if (s.reserved != 0) {
                    problems.add("reserved short " + s.reserved + " at " + s.time);
                }
                for (float[] a : new float[][] {s.rawX, s.rawY, s.secondX, s.secondY,
                    s.pupilSize, s.gazeX, s.gazeY, s.gazeVelX, s.gazeVelY, s.secondVelX,
                    s.secondVelY, s.rawVelX, s.rawVelY, s.fastGazeVelX, s.fastGazeVelY,
                    s.fastSecondVelX, s.fastSecondVelY, s.fastRawVelX, s.fastRawVelY}) {
                    if (a == null || a.length != 2) {
                        problems.add("an array of two per eye at " + s.time);
                        break;
                    }
                }
                if (s.extraData == null || s.extraData.length != 8) {
                    problems.add("eight extra words at " + s.time);
                }
            }
        }
        equal(250, samples, "samples of both blocks");
    }

    private static void messageTexts() throws Exception {
        List<Object> items = readAll(path("walk.orb"));
        String[][] cases = {
            {"1005", "TRIALID 1"},
            {"1020", "hello"},                      // trailing line feed dropped
            {"1030", "L".repeat(139)},              // 201 bytes stored: 139 kept
            {"1031", "M".repeat(139)},              // 140 bytes stored, the last the terminator
            {"1032", ""},                           // length 1: empty
            {"1033", ""},                           // length 0: empty
            {"1034", "two\n"},                      // one line feed only
            {"1035", "caf\u00e9 \u20ac"},            // UTF-8 kept as characters
            {"1036", "nul"},                        // text ends at a zero byte
            {"1037", "lf"},
        };
        for (String[] c : cases) {
            Event e = messageAt(items, Integer.parseInt(c[0]));
            if (e == null) {
                problems.add("message at " + c[0]);
                continue;
            }
            equal(c[1], e.message, "message at " + c[0]);
        }
        for (Object o : items) {
            if (o instanceof Event && ((Event) o).getType() != ORB.MESSAGE
                    && !((Event) o).message.isEmpty()) {
                problems.add("text on a non-message item: " + o);
            }
            if (o instanceof Event && ((Event) o).message.length() > 139) {
                problems.add("message over 139 characters");
            }
        }
    }

    private static void typeMismatch() throws Exception {
        try (ORB orb = new ORB(path("walk.orb"))) {
            check(stepTo(orb, ORB.SFIX), "a fixation start");
            Event e = new Event();
            orb.getFloatData(e, ORB.EFIX);
            equal(ORB.SFIX, e.getType(), "the record's own type arrives");
            equal(1010L, e.getStartTime(), "and its start time");
            check(log.contains("Types not matched \n"), "mismatch logged");

            // A sample read as an event: filled from the sample's bytes, no text.
            check(stepTo(orb, ORB.SAMPLE), "a sample");
            log.clear();
            Event fromSample = new Event();
            fromSample.message = "before";
            orb.getFloatData(fromSample, ORB.MESSAGE);
            check(log.contains("Types not matched \n"), "mismatch logged for a sample");
            equal("", fromSample.message, "a sample has no text");

            // An object of the wrong class: the runtime refuses the call, the
            // binding logs the check site and carries on.
            log.clear();
            Sample wrong = new Sample();
            orb.getFloatData(wrong, ORB.SFIX);
            check(log.contains("Exception caught in native code at lint 231\n"),
                    "failed call logged at its site: " + log);
            check(wrong.rawX == null, "wrong target untouched");
            check(orb.getNextData0() != ORB.NO_MORE_ITEMS, "the file still reads");
        }
    }

    private static void codesWithoutRecord() throws Exception {
        try (ORB orb = new ORB(path("walk.orb"))) {
            check(stepTo(orb, ORB.SFIX), "a fixation start");
            for (int code : new int[] {12, 26, 0, 29, 201, -1}) {
                Event e = new Event();
                e.time = -7;
                e.message = "untouched";
                orb.getFloatData(e, code);
                equal(-7, e.time, "event time after code " + code);
                equal("untouched", e.message, "event text after code " + code);
                Sample s = new Sample();
                orb.getFloatData(s, code);
                check(s.rawX == null, "sample after code " + code);
            }
            orb.getFloatData(null, ORB.SFIX); // refused, no crash
            check(log.isEmpty(), "nothing logged: " + log);
        }
    }

    private static void trialNavigation() throws Exception {
        try (ORB orb = new ORB(path("walk.orb"))) {
            int count = orb.getTrialCount();
            check(count >= 2, "trials in two blocks: " + count);
            check(orb.gotoPreviousTrial() == null, "no trial before the first move");

            Trial first = orb.gotoNextTrial();
            check(first != null, "the first move goes to trial 0");
            if (first == null) {
                return;
            }
            check(first == orb.getTrial(), "the file's trial object is returned");
            RecordingInfo block = first.recording;
            check(block != null && block.isStart(), "a trial lies in a block start");
            equal(first.startIndex, orb.peakItemIndex(), "position at the trial's first item");
            int firstStart = first.startTime;
            int firstIndex = first.startIndex;

            List<Integer> starts = new ArrayList<>();
            starts.add(firstStart);
            Trial t;
            while ((t = orb.gotoNextTrial()) != null) {
                check(t == first, "the same object refilled");
                check(t.recording == block, "the same block object refilled");
                equal(t.startIndex, orb.peakItemIndex(), "position after gotoNextTrial");
                starts.add(t.startTime);
            }
            equal(count, starts.size(), "gotoNextTrial visits every trial");
            equal(500.0f, block.sampleRate, "the block object holds the last trial's block");
            equal(3, block.getEyes(), "with both eyes");
            int last = orb.peakItemIndex();
            check(orb.gotoNextTrial() == null, "no trial after the last");
            equal(last, orb.peakItemIndex(), "a failed move keeps the position");

            Trial back = orb.gotoPreviousTrial();
            check(back != null && back.startTime == starts.get(count - 2), "previous trial");

            Trial byStart = orb.gotoTrialWithStartTime(firstStart);
            check(byStart != null && byStart.startIndex == firstIndex, "by start time");
            int before = orb.peakItemIndex();
            check(orb.gotoTrialWithStartTime(firstStart + 1) == null, "no trial starts then");
            check(orb.gotoTrialWithEndTime(123456) == null, "no trial ends then");
            equal(before, orb.peakItemIndex(), "failed time moves keep the position");
            Trial second = orb.jumpToTrial(1);
            int secondEnd = second == null ? -1 : second.endTime;
            Trial byEnd = orb.gotoTrialWithEndTime(secondEnd);
            check(byEnd != null && byEnd.endTime == secondEnd, "by end time");

            check(orb.jumpToTrial(count) == null, "jump past the last trial");
            check(orb.jumpToTrial(-1) == null, "jump before the first trial");
            Trial jumped = orb.jumpToTrial(0);
            check(jumped != null && jumped.startTime == firstStart, "jump to trial 0");
            // Stepping from a trial start gives the trial's first item.
            int code = orb.getNextData0();
            check(code != ORB.NO_MORE_ITEMS, "items after a trial start");
            equal(firstIndex + 1, orb.peakItemIndex(), "stepped onto the first item");
        }
    }

    private static String trialList(ORB orb) {
        StringBuilder b = new StringBuilder();
        RecordText.trials(b, orb, "list");
        return b.toString();
    }

    private static void trialIdentifiers() throws Exception {
        try (ORB orb = new ORB(path("walk.orb"))) {
            String defaults = trialList(orb);
            equal(0, orb.setTrialIdentifiers("TRIALID", "TRIAL_END"), "result");
            String withEnd = trialList(orb);
            equal(0, orb.setTrialIdentifiers("TRIALID", ""), "result");
            equal(defaults, trialList(orb), "an empty end marker is no end marker");
            orb.setTrialIdentifiers("TRIALID", "TRIAL_END");
            System.gc(); // the file keeps pointers to the converted texts
            orb.setTrialIdentifiers(new String("TRIALID"), new String("TRIAL_END"));
            equal(withEnd, trialList(orb), "identifiers set again");

            orb.setTrialIdentifiers(null, null);
            String none = trialList(orb);
            orb.setTrialIdentifiers("", "");
            equal(none, trialList(orb), "empty markers are null markers");
            orb.setTrialIdentifiers("", "TRIAL_END");
            String emptyStart = trialList(orb);
            orb.setTrialIdentifiers(null, "TRIAL_END");
            equal(emptyStart, trialList(orb), "an empty start marker is a null marker");
        }
    }

    private static void bookmarks() throws Exception {
        try (ORB orb = new ORB(path("walk.orb"))) {
            for (int i = 0; i < 10; ++i) {
                orb.getNextData0();
            }
            BookMark at10 = orb.setBookmark();
            equal(10, at10.bookmarkID, "bookmark at the current position");
            int count = orb.getItemCount();
            equal(count, orb.gotoIndex(50), "gotoIndex answers the item count");
            BookMark at50 = orb.setBookmark();
            equal(50, at50.getId(), "second bookmark");

            equal(0, orb.gotoBookmark(at10), "go to the first");
            equal(10, orb.peakItemIndex(), "position of the first");
            orb.getNextData0();
            String atTen = itemText(orb);
            equal(0, orb.gotoNextBookmark(), "next bookmark");
            equal(50, orb.peakItemIndex(), "position of the second");
            equal(-1, orb.gotoNextBookmark(), "none after the last");
            equal(50, orb.peakItemIndex(), "a failed move keeps the position");
            equal(0, orb.gotoPreviousBookmark(), "previous bookmark");
            equal(10, orb.peakItemIndex(), "back at the first");
            orb.getNextData0();
            equal(atTen, itemText(orb), "the same item read again");

            orb.gotoIndex(10);
            BookMark again = orb.setBookmark();
            equal(0, again.bookmarkID, "a bookmarked position gives no new id");

            equal(0, orb.freeBookmark(at10), "free");
            equal(-1, orb.gotoBookmark(at10), "a freed bookmark is unknown");
            equal(-1, orb.freeBookmark(at10), "freed twice");
            equal(-1, orb.gotoBookmark(new BookMark(12345)), "an unknown bookmark");
            equal(-1, orb.gotoBookmark(null), "no bookmark");
            equal(-1, orb.freeBookmark(null), "no bookmark to free");
            equal(0, orb.gotoBookmark(at50), "the other bookmark stays");

            int here = orb.peakItemIndex();
            equal(count, orb.gotoIndex(count), "index out of range");
            equal(count, orb.gotoIndex(-1), "negative index");
            equal(here, orb.peakItemIndex(), "out of range changes nothing");
            while (orb.getNextData0() != ORB.NO_MORE_ITEMS) {
                // to the end
            }
            equal(0, orb.setBookmark().bookmarkID, "no bookmark past the last item");
        }
    }

    /** The current item (a sample) as text, for comparing reads of the same item. */
    private static String itemText(ORB orb) {
        StringBuilder b = new StringBuilder().append(orb.peakItemIndex());
        Sample s = new Sample();
        orb.getFloatData(s, ORB.SAMPLE);
        RecordText.sample(b, s);
        return b.toString();
    }

    private static void openFailures() throws Exception {
        String expected = "Could not open ORB File or the ORB File is corrupt";
        for (String name : new String[] {"missing.orb", "corrupt.orb", "truncated.orb"}) {
            ORB orb = new ORB();
            log.clear();
            try {
                int r = orb.getORBFile(path(name), 0, true, true, 0);
                problems.add(name + " opened with " + r);
            } catch (IOException e) {
                equal(expected, e.getMessage(), name + " exception text");
            }
            equal(0L, orbID(orb), name + " leaves orbID at 0");
            check(!orb.isOpen(), name + " not open");
            check(!log.isEmpty(), name + ": the reason is logged through printLog");
            if (name.equals("corrupt.orb")) {
                check(log.contains("Bad magic.  Corrupt orb file. \n\n"), "reason: " + log);
            }
        }

        try (ORB orb = new ORB(path("walk.orb"))) {
            long id = orbID(orb);
            check(id != 0, "an open file has an id");
            int items = orb.getItemCount();
            try {
                orb.open(path("corrupt.orb"));
                problems.add("corrupt file opened");
            } catch (IOException e) {
                equal(expected, e.getMessage(), "exception text");
            }
            try {
                orb.getORBFile(null, 0, true, true, 0);
                problems.add("null path opened");
            } catch (IOException e) {
                equal(expected, e.getMessage(), "null path");
            }
            equal(id, orbID(orb), "a failed open keeps the open file's id");
            equal(items, orb.getItemCount(), "and the open file");
            check(orb.getNextData0() != ORB.NO_MORE_ITEMS, "which still reads");

            orb.open(path("empty_preamble.orb"), 0, true, true);
            check(orbID(orb) != 0, "reopened");
            check(orb.getItemCount() != items, "the new file replaced the old one");
            for (int mode = -1; mode <= 4; ++mode) {
                equal(0, orb.getORBFile(path("walk.orb"), 0, true, true, mode), "mode " + mode);
                equal(items, orb.getItemCount(), "items with mode " + mode);
            }
            orb.open(path("walk.orb"), ORB.CONSISTENCY_NONE, true, false);
            check(orb.getItemCount() < items, "events only: fewer items");
        }
    }

    /** What each refused open says, and that the reason is the one of that open. */
    private static void refusalReasons() throws Exception {
        String[][] cases = {
            {"corrupt.orb", "Bad magic.  Corrupt orb file."},
            {"missing.orb", "missing.orb"},
            {null, "no path was given"},
        };
        for (String[] c : cases) {
            String name = c[0] == null ? "null path" : c[0];
            try (ORB orb = new ORB()) {
                orb.getORBFile(c[0] == null ? null : path(c[0]), 0, true, true, 0);
                problems.add(name + " opened");
            } catch (OrbException e) {
                check(e.getReason().contains(c[1]), name + " reason: " + e.getReason());
                check(!e.getReason().endsWith("\n"), name + " reason without its line end");
                check(e.toString().contains(e.getMessage() + ": " + e.getReason()),
                      name + " printed with its reason: " + e);
            }
        }
        // A good open between two refusals leaves no reason behind, and the
        // second refusal's reason is its own.
        try (ORB orb = new ORB(path("walk.orb"))) {
            check(orb.isOpen(), "walk.orb opens");
        }
        try (ORB orb = new ORB()) {
            orb.open(path("corrupt.orb"));
            problems.add("corrupt.orb opened");
        } catch (OrbException e) {
            equal("Bad magic.  Corrupt orb file.", e.getReason(), "the reason of this open alone");
        }
    }

    private static void closedFile() throws Exception {
        ORB orb = new ORB(path("walk.orb"));
        orb.getNextData0();
        BookMark mark = orb.setBookmark();
        orb.closeORBFile();
        check(log.contains("releasing orb memory \n"), "close logged");
        equal(0L, orbID(orb), "orbID cleared");
        equal(ORB.NO_MORE_ITEMS, orb.getNextData0(), "getNextData0");
        equal(0, orb.getItemCount(), "getItemCount");
        equal(0, orb.getTrialCount(), "getTrialCount");
        equal(0, orb.getRevision(), "getRevision");
        equal(-1, orb.peakItemIndex(), "peakItemIndex");
        equal(-1, orb.gotoIndex(0), "gotoIndex");
        equal(-1, orb.setTrialIdentifiers("A", "B"), "setTrialIdentifiers");
        equal(null, orb.getPreambleText(), "getPreambleText");
        equal(null, orb.setBookmark(), "setBookmark");
        equal(-1, orb.gotoBookmark(mark), "gotoBookmark");
        equal(-1, orb.freeBookmark(mark), "freeBookmark");
        equal(-1, orb.gotoNextBookmark(), "gotoNextBookmark");
        equal(-1, orb.gotoPreviousBookmark(), "gotoPreviousBookmark");
        equal(null, orb.jumpToTrial(0), "jumpToTrial");
        equal(null, orb.gotoNextTrial(), "gotoNextTrial");
        equal(null, orb.gotoPreviousTrial(), "gotoPreviousTrial");
        equal(null, orb.gotoTrialWithStartTime(1000), "gotoTrialWithStartTime");
        equal(null, orb.gotoTrialWithEndTime(1000), "gotoTrialWithEndTime");
        Sample s = new Sample();
        orb.getFloatData(s, ORB.SAMPLE);
        check(s.rawX == null, "getFloatData leaves the target");
        orb.closeORBFile();
        orb.close();
        check(!orb.isOpen(), "closed twice without harm");
        orb.open(path("walk.orb"));
        check(orb.getItemCount() > 0, "the object opens again");
        orb.close();
        equal(0L, orbID(orb), "close() clears orbID");
        new ORB().closeORBFile(); // never opened
    }

    private static void preamble() throws Exception {
        try (ORB orb = new ORB(path("walk.orb"))) {
            String text = orb.getPreambleText();
            check(text.contains("** VERSION: OCULANT MK 3\n"), "preamble lines: " + text);
            equal(3, orb.getRevision(), "revision");
        }
        try (ORB orb = new ORB(path("empty_preamble.orb"))) {
            equal("", orb.getPreambleText(), "empty preamble");
            equal(0, orb.getRevision(), "no revision");
        }
    }

    private static void floatColumns() {
        DefaultOptionAdapter a = new DefaultOptionAdapter();
        Object[][] cases = {
            {123456.0f, 1, "\t 1.2e+05"},
            {99999.0f, 1, "\t99999.0"},
            {-123456.0f, 1, "\t -1.2e+05"},
            {12.25f, 0, "\t     12"},
            {3.14159f, 2, "\t   3.14"},
            {9999.5f, 2, "\t9999.50"},
            {10000.0f, 2, "\t 1.0e+04"},
            {999.25f, 3, "\t999.250"},
            {1000.0f, 3, "\t 1.0e+03"},
            {1000.0f, 5, "\t 1.0e+03"},
            {1.5f, -1, "\t1.500000"},
            {Float.NaN, 1, "\t    nan"},
            {Float.POSITIVE_INFINITY, 2, "\t     inf"},
            {3.0e38f, 0, null},
        };
        for (Object[] c : cases) {
            String got = a.getFloatValue0((Float) c[0], (Integer) c[1]);
            if (c[2] == null) {
                check(got != null && got.length() <= 49 && got.startsWith("\t3"),
                        "a wide value is cut to the column buffer: " + got);
            } else {
                equal(c[2], got, c[0] + " with precision " + c[1]);
            }
        }
    }

    private static void fullWalkUnderChecks() throws Exception {
        String java = new File(new File(System.getProperty("java.home"), "bin"), "java").getPath();
        List<String> command = new ArrayList<>(List.of(java, "-Xcheck:jni",
                "-Djava.library.path=" + System.getProperty("java.library.path")));
        String lib = System.getProperty(ORB.LIBRARY_PROPERTY);
        if (lib != null) {
            command.add("-D" + ORB.LIBRARY_PROPERTY + "=" + lib);
        }
        command.addAll(List.of("-cp", System.getProperty("java.class.path"),
                "com.norvanelab.orbapi.FullWalk", path("long.orb")));
        int items;
        try (ORB orb = new ORB(path("long.orb"))) {
            items = orb.getItemCount();
        }
        String out = run(command, true);
        check(!out.contains("WARNING"), "JNI checks complained:\n" + out);
        check(!out.contains("Exception"), "exceptions:\n" + out);
        check(items > 120000, "a long recording: " + items);
        check(out.contains("walked " + items + " items: 120000 samples"),
                "the walk went over the whole file:\n" + out);
        check(!out.contains(" 0 trials"), "trials reached:\n" + out);
        String[] lines = out.strip().split("\n");
        check(lines[lines.length - 1].startsWith("walked "), "closing line:\n" + out);
    }
}
