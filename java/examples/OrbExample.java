import com.norvanelab.orbapi.Event;
import com.norvanelab.orbapi.ORB;
import com.norvanelab.orbapi.RecordingInfo;
import com.norvanelab.orbapi.Sample;
import com.norvanelab.orbapi.Trial;

import java.io.IOException;

/**
 * Prints a recording: its preamble, every item in time order, and its
 * trials.
 *
 * <pre>
 * java -Djava.library.path=DIR -cp orbapi.jar:orbapi-example.jar OrbExample run1.orb
 * </pre>
 */
public final class OrbExample {
    private OrbExample() {
    }

    /**
     * Prints the recording named by the first argument.
     *
     * @param args the recording file
     */
    public static void main(String[] args) {
        if (args.length != 1) {
            System.err.println("usage: OrbExample FILE.orb");
            System.exit(2);
        }
        // The library's diagnostics go to standard error, apart from the items.
        ORB.setLogListener(line -> System.err.print(line));
        try (ORB orb = new ORB(args[0])) {
            System.out.print(orb.getPreambleText());
            System.out.println(orb.getItemCount() + " items");

            int code;
            while ((code = orb.next()) != ORB.NO_MORE_ITEMS) {
                Object item = orb.read(code);
                if (item instanceof Sample) {
                    Sample s = (Sample) item;
                    System.out.printf("SAMPLE %.1f gaze %.1f %.1f pupil %.0f%n", s.time,
                            s.gazeX[s.hasLeftEye() ? 0 : 1], s.gazeY[s.hasLeftEye() ? 0 : 1],
                            s.pupilSize[s.hasLeftEye() ? 0 : 1]);
                } else if (item instanceof RecordingInfo) {
                    System.out.println("RECORDING " + item);
                } else if (item instanceof Event) {
                    System.out.println(item);
                }
            }

            int trials = orb.getTrialCount();
            System.out.println(trials + " trials");
            for (int i = 0; i < trials; ++i) {
                Trial t = orb.jumpToTrial(i);
                if (t != null) {
                    System.out.println("  " + i + ": " + t + " in " + t.recording);
                }
            }
        } catch (IOException e) {
            System.err.println(args[0] + ": " + e.getMessage());
            System.exit(1);
        }
    }
}
