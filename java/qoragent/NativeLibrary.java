package qoragent;

import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.net.URISyntaxException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.nio.file.StandardCopyOption;
import java.nio.file.attribute.FileAttribute;
import java.nio.file.attribute.PosixFilePermissions;
import java.security.CodeSource;
import java.util.LinkedHashSet;
import java.util.Set;

/**
 * Loads libqoragent.so once: the file that the property "qoragent.library" names, or the copy inside the jar.
 *
 * The copy goes into a fresh directory for the owner only, which is removed as soon as the JVM has mapped the
 * library. The places tried are the JVM's temporary directory and then, as some hosts mount that without
 * leave to execute, the user's runtime directory and home, and the jar's directory: where all of these
 * refuse, qorctl has put the jar in one that doesn't.
 *
 * A JDK from 24 on prints a warning on stderr when a library is loaded; --enable-native-access=ALL-UNNAMED on
 * the JVM's command line silences it. The jar's manifest can't do that for an agent.
 */
final class NativeLibrary {
    static final String PATH_PROPERTY = "qoragent.library";

    private static final String RESOURCE = "/native/linux-x86_64/libqoragent.so";
    private static final FileAttribute<?> OWNER_ONLY =
        PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rwx------"));

    private static boolean loaded;

    private NativeLibrary() {}

    /**
     * Loads the library unless it is loaded already.
     *
     * @throws IllegalStateException saying why it is unavailable
     */
    static synchronized void load() {
        if (loaded)
            return;
        String path = System.getProperty(PATH_PROPERTY);
        if (path != null && !path.isEmpty())
            loadFile(new File(path).getAbsoluteFile());
        else
            loadFromJar();
        loaded = true;
    }

    private static void loadFile(File file) {
        try {
            System.load(file.getPath());
        } catch (UnsatisfiedLinkError e) {
            throw new IllegalStateException("cannot load " + file + ": " + e.getMessage(), e);
        }
    }

    private static void loadFromJar() {
        String platform = System.getProperty("os.name") + " " + System.getProperty("os.arch");
        if (!platform.equals("Linux amd64"))
            throw new IllegalStateException("there is no library for " + platform + ", only for Linux amd64");
        StringBuilder failures = new StringBuilder();
        for (String place : places()) {
            try {
                loadThrough(Paths.get(place));
                return;
            } catch (IOException | UnsatisfiedLinkError e) {
                failures.append(failures.length() == 0 ? "" : "; ")
                    .append("in ")
                    .append(place)
                    .append(": ")
                    .append(e);
            }
        }
        throw new IllegalStateException("cannot load the library; name it with -D" + PATH_PROPERTY +
                                        "=PATH (" + failures + ")");
    }

    private static Set<String> places() {
        Set<String> places = new LinkedHashSet<>();
        for (String place :
             new String[] {System.getProperty("java.io.tmpdir"), System.getenv("XDG_RUNTIME_DIR"),
                           System.getProperty("user.home"), besideTheJar()})
            if (place != null && !place.isEmpty())
                places.add(place);
        return places;
    }

    private static String besideTheJar() {
        CodeSource jar = NativeLibrary.class.getProtectionDomain().getCodeSource();
        try {
            return jar == null ? null : Paths.get(jar.getLocation().toURI()).getParent().toString();
        } catch (URISyntaxException | IllegalArgumentException e) {
            return null; // it didn't come from a file
        }
    }

    private static void loadThrough(Path place) throws IOException {
        Path dir = Files.createTempDirectory(place, "qoragent", OWNER_ONLY);
        Path copy = dir.resolve("libqoragent.so");
        try (InputStream in = NativeLibrary.class.getResourceAsStream(RESOURCE)) {
            if (in == null)
                throw new IOException("the jar holds no " + RESOURCE);
            Files.copy(in, copy, StandardCopyOption.REPLACE_EXISTING);
            System.load(copy.toAbsolutePath().toString());
        } finally {
            // What can't be removed is litter and no failure: the library may well be mapped by now.
            copy.toFile().delete();
            dir.toFile().delete();
        }
    }
}
