package com.norvanelab.orbapi;

import java.io.IOException;

/**
 * A recording that could not be opened. {@link #getMessage()} is the fixed
 * text "Could not open ORB File or the ORB File is corrupt"; {@link
 * #getReason()} says what went wrong and where, in the library's words (for
 * a file that is not a recording, "Bad magic.  Corrupt orb file."). Printed,
 * the exception shows both.
 */
public class OrbException extends IOException {
    private static final long serialVersionUID = 1L;

    /** The library's reason; never null. */
    private final String reason;

    /**
     * @param message the fixed text of a failed open
     * @param reason what went wrong, in the library's words
     */
    public OrbException(String message, String reason) {
        super(message);
        this.reason = reason == null ? "" : reason;
    }

    /**
     * The library's reason for refusing the recording: the lines it logged
     * while opening, without the final line end.
     *
     * @return the reason; empty when the library gave none
     */
    public String getReason() {
        return reason;
    }

    /** The fixed text followed by the reason. */
    @Override
    public String getLocalizedMessage() {
        return reason.isEmpty() ? getMessage() : getMessage() + ": " + reason;
    }
}
