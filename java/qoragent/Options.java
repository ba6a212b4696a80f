package qoragent;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;

/**
 * The agent's options: "key=value" pairs with commas between them. A backslash takes the next character as it
 * stands, so that a value may hold a comma. Keys may not repeat; what isn't given has its default.
 */
final class Options {
    /** How a key's value is checked; the bounds of a number hold both ends. */
    private static final class Key {
        final String name;
        final String preset;
        final long min;
        final long max;
        final List<String> choices;

        private Key(String name, String preset, long min, long max, String... choices) {
            this.name = name;
            this.preset = preset;
            this.min = min;
            this.max = max;
            this.choices = Arrays.asList(choices);
        }

        static Key number(String name, int preset, long min, long max) {
            return new Key(name, Integer.toString(preset), min, max);
        }

        static Key choice(String name, String preset, String... choices) {
            return new Key(name, preset, 0, -1, choices);
        }

        static Key text(String name, String preset) { return new Key(name, preset, 0, -1); }

        void check(String value) {
            if (min <= max)
                checkNumber(value);
            else if (!choices.isEmpty() && !choices.contains(value))
                throw new IllegalArgumentException("option " + name + ": \"" + value + "\" is none of " +
                                                   choices);
        }

        private void checkNumber(String value) {
            try {
                long number = Long.parseLong(value);
                if (number >= min && number <= max)
                    return;
            } catch (NumberFormatException e) {
                // said below, as for a number out of bounds
            }
            throw new IllegalArgumentException("option " + name + ": \"" + value + "\" isn't a number from " +
                                               min + " to " + max);
        }
    }

    private static final int MAX = Integer.MAX_VALUE;
    /** The native side appends to this text and keeps 127 bytes. */
    private static final int OS_NAME_LIMIT = 100;

    private static final Map<String, Key> KEYS = keys();

    private final Map<String, String> given;

    private Options(Map<String, String> given) { this.given = given; }

    private static Map<String, Key> keys() {
        Map<String, Key> keys = new LinkedHashMap<>();
        for (Key key : new Key[] {
                 Key.number("loglevel", 1, 0, MAX),
                 Key.choice("optlevel", "0", "0", "1", "2", "3", "9"),
                 Key.number("maxbackoff", 30, 0, MAX),
                 Key.number("timeout", 60, 0, MAX),
                 Key.number("sigchain", 0, 0, 1),
                 Key.text("vendor", System.getProperty("java.vendor", "")),
                 Key.text("version", System.getProperty("java.version", "")),
                 Key.text("osname",
                          System.getProperty("os.name", "") + "-" + System.getProperty("os.version", "")),
                 Key.text("webserver", ""),
                 Key.text("logfile", "stderr"),
                 Key.text("jvmid", ""),
                 Key.number("lockinfo", 1, 0, MAX),
                 Key.number("dbquery", 0, 0, 1),
                 Key.number("sqlsize", 4096, 0, MAX),
                 Key.number("localquota", 1, 0, 100),
                 Key.number("handquota", 5, 1, 100),
                 Key.number("stackqueried", 1000, 1, MAX),
                 Key.number("stackrecorded", 300, 1, MAX),
                 Key.choice("forkdump", "false", "false", "true"),
                 Key.text("tiers", ""),
                 Key.text("rules", "default"),
                 Key.choice("relay", "on", "on", "off"),
                 Key.text("bind", "127.0.0.1"),
                 Key.number("port", 0, 0, 65535),
             })
            keys.put(key.name, key);
        return keys;
    }

    /**
     * Reads an option text; null and empty are all defaults.
     *
     * @throws IllegalArgumentException naming the key that is unknown, repeated or has a bad value
     */
    static Options parse(String text) {
        Map<String, String> given = new LinkedHashMap<>();
        for (String pair : split(text == null ? "" : text)) {
            int equals = pair.indexOf('=');
            String name = (equals < 0 ? pair : pair.substring(0, equals)).trim();
            Key key = KEYS.get(name);
            if (key == null)
                throw new IllegalArgumentException("unknown option \"" + name + "\"; options are " +
                                                   String.join(", ", KEYS.keySet()));
            if (equals < 0)
                throw new IllegalArgumentException("option " + name + " has no value; write " + name +
                                                   "=VALUE");
            String value = pair.substring(equals + 1);
            key.check(value);
            if (given.put(name, value) != null)
                throw new IllegalArgumentException("option " + name + " is given twice");
        }
        return new Options(given);
    }

    /** The pieces between the commas that no backslash protects; empty ones are left out. */
    private static List<String> split(String text) {
        List<String> pieces = new ArrayList<>();
        StringBuilder piece = new StringBuilder();
        for (int i = 0; i <= text.length(); i++) {
            char c = i < text.length() ? text.charAt(i) : ',';
            if (c == '\\' && i + 1 < text.length()) {
                piece.append(text.charAt(++i));
            } else if (c != ',') {
                piece.append(c);
            } else {
                if (piece.length() > 0)
                    pieces.add(piece.toString());
                piece.setLength(0);
            }
        }
        return pieces;
    }

    String text(String name) {
        String value = given.get(name);
        return value != null ? value : KEYS.get(name).preset;
    }

    /** True when the value is the one that holds where none is given. */
    boolean isPreset(String name) { return text(name).equals(KEYS.get(name).preset); }

    int number(String name) { return Integer.parseInt(text(name)); }

    boolean relay() { return text("relay").equals("on"); }

    /** The operating system's name, short enough for the native side's buffer. */
    String osName() {
        String name = text("osname");
        return name.length() <= OS_NAME_LIMIT ? name : name.substring(0, OS_NAME_LIMIT);
    }

    /** True when these ask for nothing of their own, or for what `other` has already. */
    boolean agreeWith(Options other) {
        for (String name : given.keySet())
            if (!text(name).equals(other.text(name)))
                return false;
        return true;
    }
}
