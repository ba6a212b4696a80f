package qoragent;

import java.io.IOException;
import java.nio.charset.StandardCharsets;

/** The rules that say at the start which threads and calls are idle and which calls are the system's. */
final class IdleRules {
    private static final String SHIPPED = "idle.rules";
    private static final String DEFAULT = "default";
    private static final String NONE = "none";
    private static final String REQUEST = "516|NoProcessing|activethreads|";
    private static final int LARGEST = 20_000;

    private IdleRules() {}

    /**
     * The request that puts the rules in force which the option `rules` asks for: "default" the jar's, "none"
     * none, else those of the file with this name. Null when there are none. Comments aren't sent.
     *
     * @throws IllegalArgumentException when the file can't be read, or holds more than a request
     */
    static String request(String option) {
        if (option.equals(NONE))
            return null;
        StringBuilder rules = new StringBuilder();
        try {
            String text = option.equals(DEFAULT) ? Tiers.shipped(SHIPPED) : Tiers.ofFile(option);
            for (String line : text.split("\n"))
                if (!line.trim().isEmpty() && !line.startsWith("#"))
                    rules.append(line).append('\r');
        } catch (IOException e) {
            throw new IllegalArgumentException("option rules: cannot read " + option + ": " + e, e);
        }
        if (rules.toString().getBytes(StandardCharsets.UTF_8).length > LARGEST)
            throw new IllegalArgumentException("option rules: " + option + " holds more than " + LARGEST +
                                               " bytes of rules");
        return rules.length() == 0 ? null : REQUEST + rules;
    }
}
