package com.norvanelab.orbapi;

import java.nio.charset.StandardCharsets;
import java.util.Locale;

/**
 * Prints a recording read through the Java classes in the text form of the
 * fixture tool orb_dump, which reads the same recording through the
 * function interface. Floats are printed as bit patterns.
 */
final class RecordText {
    private RecordText() {
    }

    /** The whole text: header, every item, the trials before and after setting an end marker. */
    static String dump(ORB orb) {
        StringBuilder b = new StringBuilder();
        b.append("items ").append(orb.getItemCount()).append('\n');
        b.append("revision ").append(orb.getRevision()).append('\n');
        b.append("preamble ");
        quoted(b, orb.getPreambleText());
        b.append('\n');

        int code;
        while ((code = orb.getNextData0()) != ORB.NO_MORE_ITEMS) {
            b.append('@').append(orb.peakItemIndex()).append(' ').append(code);
            Object item = orb.read(code);
            if (item instanceof Sample) {
                sample(b, (Sample) item);
            } else if (item instanceof RecordingInfo) {
                recording(b, (RecordingInfo) item);
            } else if (item instanceof Event) {
                event(b, (Event) item);
            }
            b.append('\n');
        }
        b.append("end @").append(orb.peakItemIndex()).append('\n');

        trials(b, orb, "default");
        orb.setTrialIdentifiers("TRIALID", "TRIAL_END");
        trials(b, orb, "with-end");
        return b.toString();
    }

    static void trials(StringBuilder b, ORB orb, String title) {
        int count = orb.getTrialCount();
        b.append("trials ").append(title).append(' ').append(count).append('\n');
        for (int i = 0; i <= count; ++i) {
            Trial t = orb.jumpToTrial(i);
            if (t == null) {
                b.append("trial ").append(i).append(" none\n");
                continue;
            }
            b.append("trial ").append(i).append(" start=").append(unsigned(t.startTime))
                    .append(" end=").append(unsigned(t.endTime))
                    .append(" index=").append(orb.peakItemIndex()).append(" rec");
            recording(b, t.recording);
            b.append('\n');
        }
    }

    static String unsigned(int v) {
        return Integer.toUnsignedString(v);
    }

    static String hex4(short v) {
        return String.format("%04x", v & 0xFFFF);
    }

    static void bits(StringBuilder b, float f) {
        b.append(String.format(" %08x", Float.floatToRawIntBits(f)));
    }

    static void pair(StringBuilder b, String name, float[] v) {
        b.append(' ').append(name);
        bits(b, v[0]);
        bits(b, v[1]);
    }

    static void quoted(StringBuilder b, String text) {
        b.append('"');
        for (byte raw : text.getBytes(StandardCharsets.UTF_8)) {
            int c = raw & 0xFF;
            if (c >= 0x20 && c < 0x7F && c != '\\' && c != '"') {
                b.append((char) c);
            } else {
                b.append(String.format("\\x%02x", c));
            }
        }
        b.append('"');
    }

    static void sample(StringBuilder b, Sample s) {
        b.append(String.format(Locale.ROOT, " t=%.1f f=%04x", s.time, s.flags & 0xFFFF));
        pair(b, "rx", s.rawX);
        pair(b, "ry", s.rawY);
        pair(b, "sx", s.secondX);
        pair(b, "sy", s.secondY);
        pair(b, "p", s.pupilSize);
        pair(b, "gx", s.gazeX);
        pair(b, "gy", s.gazeY);
        b.append(" res");
        bits(b, s.resolutionX);
        bits(b, s.resolutionY);
        b.append(" z=").append(s.reserved).append(" in=").append(hex4(s.input))
                .append(" bt=").append(hex4(s.buttons)).append(" xt=").append(s.extraType)
                .append(" x=");
        for (int i = 0; i < 8; ++i) {
            b.append(i == 0 ? "" : ",").append(hex4(s.extraData[i]));
        }
        b.append(" st=").append(hex4(s.status));
        pair(b, "gvx", s.gazeVelX);
        pair(b, "gvy", s.gazeVelY);
        pair(b, "svx", s.secondVelX);
        pair(b, "svy", s.secondVelY);
        pair(b, "rvx", s.rawVelX);
        pair(b, "rvy", s.rawVelY);
        pair(b, "fgx", s.fastGazeVelX);
        pair(b, "fgy", s.fastGazeVelY);
        pair(b, "fsx", s.fastSecondVelX);
        pair(b, "fsy", s.fastSecondVelY);
        pair(b, "frx", s.fastRawVelX);
        pair(b, "fry", s.fastRawVelY);
    }

    static void event(StringBuilder b, Event e) {
        b.append(" t=").append(unsigned(e.time)).append(" ty=").append(e.type & 0xFFFF)
                .append(" c=").append(hex4(e.contents)).append(" e=").append(e.eye)
                .append(" s=").append(unsigned(e.startTime)).append(" en=")
                .append(unsigned(e.endTime)).append(" f");
        float[] f = {e.startPosX, e.startPosY, e.startGazeX, e.startGazeY, e.startScalar,
            e.endPosX, e.endPosY, e.endGazeX, e.endGazeY, e.endScalar, e.avgPosX, e.avgPosY,
            e.avgGazeX, e.avgGazeY, e.avgScalar, e.avgPupil, e.peakPupil, e.startPupil,
            e.endPupil, e.startResX, e.endResX, e.startResY, e.endResY};
        for (float v : f) {
            bits(b, v);
        }
        b.append(" a=").append(hex4(e.aux0)).append(" bf=").append(hex4(e.blockFlags))
                .append(" bf2=").append(hex4(e.blockFlags2)).append(" bo=")
                .append(hex4(e.blockOption)).append(" tag=").append(hex4(e.itemTag))
                .append(" m=");
        quoted(b, e.message);
    }

    static void recording(StringBuilder b, RecordingInfo r) {
        b.append(" t=").append(unsigned(r.time)).append(" st=").append(r.state & 0xFF)
                .append(" rt=").append(r.recordType & 0xFF).append(" ff=")
                .append(r.filterFlag & 0xFF).append(" mf=").append(r.modeFlag & 0xFF)
                .append(" ml=").append(r.modeLevel & 0xFF).append(" r");
        bits(b, r.sampleRate);
        b.append(" o2=").append(r.blockOption2 & 0xFF).append(" ey=").append(r.eyes & 0xFF)
                .append(String.format(" sf=%04x ef=%04x", r.sampleFlags, r.eventFlags));
    }
}
