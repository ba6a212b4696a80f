package qoragent;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.function.UnaryOperator;
import java.util.zip.CRC32;

/** The rules by which drivers and containers are read: the jar's own, and those of a user's file. */
final class Tiers {
    private static final String SHIPPED = "tiers.rules";
    private static final String NONE = "none";
    private static final String REQUEST = "516|NoProcessing|tierrules|";
    private static final String ACCEPTED = "Tier rules in force";
    /** Characters of a request's text: at most three bytes each, of the 20,480 that a request holds. */
    private static final int PIECE = 6000;

    private static final int LARGEST = 131_072;

    private final String text;

    private Tiers(String text) { this.text = text; }

    /**
     * The rules that the option `tiers` asks for: "" the jar's, "none" none, else those of the file with this
     * name before the jar's, so that a bad line has the number that it has in the file.
     *
     * @throws IllegalArgumentException when the file can't be read
     */
    static Tiers of(String option) {
        if (option.equals(NONE))
            return new Tiers("");
        try {
            return new Tiers(option.isEmpty() ? shipped(SHIPPED) : ofFile(option) + '\n' + shipped(SHIPPED));
        } catch (IOException e) {
            throw new IllegalArgumentException("option tiers: cannot read " + option + ": " + e, e);
        }
    }

    /** The text of a user's file, a line feed at the end of each line. */
    static String ofFile(String name) throws IOException {
        Path file = Paths.get(name);
        // A device or a pipe would hold the start up, a large file fill the application's heap.
        if (!Files.isRegularFile(file) || Files.size(file) > LARGEST)
            throw new IOException("no regular file of at most " + LARGEST + " bytes");
        String text = new String(Files.readAllBytes(file), StandardCharsets.UTF_8).replace("\r\n", "\n");
        return text.replace('\r', '\n');
    }

    /** A text of the jar. */
    static String shipped(String name) throws IOException {
        try (InputStream in = Tiers.class.getResourceAsStream(name)) {
            if (in == null)
                throw new IOException("the jar has no rules");
            ByteArrayOutputStream out = new ByteArrayOutputStream();
            byte[] buffer = new byte[8192];
            for (int n; (n = in.read(buffer)) > 0;)
                out.write(buffer, 0, n);
            return out.toString("UTF-8");
        }
    }

    /**
     * Sends them to the agent, in place of those that it has.
     *
     * @return null, or the agent's answer when it keeps those; "null" when it has none
     */
    String send(UnaryOperator<String> ask) {
        String lines = text.replace('\n', '\r');
        char key = '=';
        for (int at = 0; at < lines.length() || key == '='; key = '+') {
            int end = Math.min(at + PIECE, lines.length());
            ask.apply(REQUEST + key + '|' + lines.substring(at, end));
            at = end;
        }
        CRC32 crc = new CRC32();
        crc.update(text.getBytes(StandardCharsets.UTF_8));
        String answer = ask.apply(REQUEST + "!|" + Long.toHexString(crc.getValue()));
        return answer != null && answer.startsWith(ACCEPTED) ? null : String.valueOf(answer);
    }
}
