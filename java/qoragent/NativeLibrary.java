package qoragent;

import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.net.URISyntaxException;
import java.nio.file.FileSystemNotFoundException;
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
        String failures = unpack(RESOURCE, copy -> System.load(copy.toAbsolutePath().toString()));
        if (failures != null)
            throw new IllegalStateException("cannot load the library; name it with -D" + PATH_PROPERTY +
                                            "=PATH (" + failures + ")");
    }

    /** What takes a file that is there for the time of the call; it throws where the file can't be executed. */
    interface Use {
        void accept(Path copy) throws IOException;
    }

    /**
     * Copies a file of the jar's to a place where it can be executed, has it used and removes it.
     *
     * @return the reasons against each place when there is none, else null
     * @throws IllegalStateException on another platform than the jar's
     */
    static String unpack(String resource, Use use) {
        String platform = System.getProperty("os.name") + " " + System.getProperty("os.arch");
        if (!platform.equals("Linux amd64"))
            throw new IllegalStateException("there is nothing in the jar for " + platform +
                                            ", only for Linux amd64");
        StringBuilder failures = new StringBuilder();
        for (String place : places()) {
            try {
                unpackTo(Paths.get(place), resource, use);
                return null;
            } catch (IOException | UnsatisfiedLinkError e) {
                failures.append(failures.length() == 0 ? "" : "; ")
                    .append("in ")
                    .append(place)
                    .append(": ")
                    .append(e);
            }
        }
        return failures.toString();
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
        Path jar = jar();
        return jar == null ? null : jar.getParent().toString();
    }

    /** The file that this class came from; null when it didn't come from one. */
    static Path jar() {
        CodeSource source = NativeLibrary.class.getProtectionDomain().getCodeSource();
        try {
            return source == null ? null : Paths.get(source.getLocation().toURI()).toAbsolutePath();
        } catch (URISyntaxException | IllegalArgumentException | FileSystemNotFoundException e) {
            return null;
        }
    }

    private static void unpackTo(Path place, String resource, Use use) throws IOException {
        Path dir = Files.createTempDirectory(place, "qoragent", OWNER_ONLY);
        Path copy = dir.resolve(Paths.get(resource).getFileName().toString());
        try (InputStream in = NativeLibrary.class.getResourceAsStream(resource)) {
            if (in == null)
                throw new IOException("the jar holds no " + resource);
            Files.copy(in, copy, StandardCopyOption.REPLACE_EXISTING);
            use.accept(copy);
        } finally {
            // What can't be removed is litter and no failure: it may well be mapped by now.
            copy.toFile().delete();
            dir.toFile().delete();
        }
    }
}
