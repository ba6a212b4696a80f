package qoragent;

import java.io.IOException;
import java.net.InetAddress;
import java.nio.ByteBuffer;
import java.nio.channels.SeekableByteChannel;
import java.nio.charset.StandardCharsets;
import java.nio.file.FileAlreadyExistsException;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.nio.file.StandardCopyOption;
import java.nio.file.StandardOpenOption;
import java.nio.file.attribute.FileAttribute;
import java.nio.file.attribute.PosixFilePermission;
import java.nio.file.attribute.PosixFilePermissions;
import java.security.SecureRandom;
import java.util.EnumSet;
import java.util.Map;
import java.util.Set;

/**
 * Where a console finds the relay of this JVM and the token that opens it: the file PID.endpoint in a
 * directory that only its owner can enter.
 *
 * /tmp is everybody's, so the directory counts only when it is a real directory of this user with no leave
 * for others. Anything else there is somebody's trap: it is never mended, and a directory with a random
 * suffix takes its place, so that nobody can keep the agent from starting. The set-group bit lets nobody in:
 * directories have it where a container's /tmp is a volume with that bit.
 *
 * A JVM that was killed leaves its file. Where containers share /tmp, that no process has the number proves
 * nothing: the file may be that of a live JVM in another container. So the file names the JVM's pid namespace,
 * and whoever is in the same one may remove it once the process has gone.
 */
final class Endpoint {
    private static final int TOKEN_BYTES = 16;
    private static final String USUAL_ADDRESS = "127.0.0.1";
    private static final int MODE_BITS_THAT_COUNT = 05777;
    private static final int DIRECTORY_MODE = 0700;
    private static final Set<PosixFilePermission> OWNER_DIRECTORY =
        PosixFilePermissions.fromString("rwx------");
    private static final Set<PosixFilePermission> OWNER_FILE = PosixFilePermissions.fromString("rw-------");

    private final Path usual;
    private volatile Path dir;
    private final int uid;
    private final int pid;
    private final String token;

    /** @param uid the owner that `usual` must have */
    Endpoint(Path usual, int uid, int pid) {
        this.usual = usual;
        this.dir = usual;
        this.uid = uid;
        this.pid = pid;
        this.token = randomHex(TOKEN_BYTES);
    }

    /** The endpoint of this JVM, by its effective user and its process id as it sees them itself. */
    static Endpoint ofThisProcess() throws IOException {
        int uid = -1;
        int pid = -1;
        for (String line : Files.readAllLines(Paths.get("/proc/self/status"), StandardCharsets.ISO_8859_1)) {
            String[] fields = line.split("\\s+");
            if (fields[0].equals("Uid:"))
                uid = Integer.parseUnsignedInt(fields[2]);
            else if (fields[0].equals("Pid:"))
                pid = Integer.parseInt(fields[1]);
        }
        if (pid < 0)
            throw new IOException("/proc/self/status has no process id");
        return new Endpoint(Paths.get("/tmp/qoragent-" + Integer.toUnsignedString(uid)), uid, pid);
    }

    String token() { return token; }

    Path file() { return dir.resolve(pid + ".endpoint"); }

    /** The directory, when it isn't the usual one; otherwise null. */
    Path elsewhere() { return dir.equals(usual) ? null : dir; }

    /**
     * Makes the directory, or makes sure of the one that is there.
     *
     * @throws IOException saying what is wrong with the usual one, when no other can be made either
     */
    void openDirectory() throws IOException {
        try {
            if (elsewhere() != null) {
                check(dir);
                return;
            }
        } catch (IOException e) {
            // /tmp has been cleaned
        }
        try {
            create(usual);
            check(usual);
            dir = usual;
        } catch (IOException e) {
            try {
                dir = Files.createTempDirectory(usual.getParent(), usual.getFileName() + "-",
                                                PosixFilePermissions.asFileAttribute(OWNER_DIRECTORY));
            } catch (IOException none) {
                e.addSuppressed(none);
                throw e;
            }
        }
    }

    private static void create(Path made) throws IOException {
        try {
            Files.createDirectory(made, PosixFilePermissions.asFileAttribute(OWNER_DIRECTORY));
        } catch (FileAlreadyExistsException e) {
            // as good as made, if it passes the check
        }
    }

    private void check(Path made) throws IOException {
        Map<String, Object> facts =
            Files.readAttributes(made, "unix:mode,uid,isDirectory", LinkOption.NOFOLLOW_LINKS);
        int mode = (Integer)facts.get("mode") & MODE_BITS_THAT_COUNT;
        if (!(Boolean)facts.get("isDirectory"))
            throw new IOException(made + " isn't a directory");
        if ((Integer)facts.get("uid") != uid)
            throw new IOException(made + " belongs to another user");
        if (mode != DIRECTORY_MODE)
            throw new IOException(made + " has mode 0" + Integer.toOctalString(mode) + " and must have 0700");
    }

    /**
     * Writes the file under another name and moves it to its place whole; replaces what a dead JVM left
     * there. An address other than 127.0.0.1 has a line of its own.
     */
    void publish(InetAddress bind, int port) throws IOException {
        openDirectory();
        Path fresh = dir.resolve(pid + "." + randomHex(8) + ".new");
        FileAttribute<?> mode = PosixFilePermissions.asFileAttribute(OWNER_FILE);
        String address = bind.getHostAddress();
        String text = "port=" + port + "\ntoken=" + token + "\npid=" + pid + "\nversion=1\n" +
                      (address.equals(USUAL_ADDRESS) ? "" : "bind=" + address + "\n") + namespace();
        try {
            try (SeekableByteChannel out = Files.newByteChannel(
                     fresh, EnumSet.of(StandardOpenOption.CREATE_NEW, StandardOpenOption.WRITE), mode)) {
                ByteBuffer bytes = ByteBuffer.wrap(text.getBytes(StandardCharsets.US_ASCII));
                while (bytes.hasRemaining())
                    out.write(bytes);
            }
            Files.move(fresh, file(), StandardCopyOption.ATOMIC_MOVE);
        } finally {
            Files.deleteIfExists(fresh);
        }
    }

    /** The line that names the pid namespace, as /proc does; empty where it can't be read. */
    private static String namespace() {
        try {
            return "pidns=" + Files.readSymbolicLink(Paths.get("/proc/self/ns/pid")) + "\n";
        } catch (IOException | UnsupportedOperationException | SecurityException e) {
            return ""; // the file stays when the JVM is killed
        }
    }

    /** True while the file is this endpoint's: processes in other containers may share the number. */
    boolean published() {
        try {
            String text = new String(Files.readAllBytes(file()), StandardCharsets.US_ASCII);
            return text.contains("token=" + token + "\n");
        } catch (IOException e) {
            return false; // it is gone, or out of reach
        }
    }

    /** Removes the file if it is still this endpoint's, and a directory that was made for it alone. */
    void withdraw() {
        try {
            if (published())
                Files.deleteIfExists(file());
            if (elsewhere() != null)
                Files.deleteIfExists(dir);
        } catch (IOException e) {
            // a console finds no relay there either way
        }
    }

    private static String randomHex(int bytes) {
        byte[] random = new byte[bytes];
        new SecureRandom().nextBytes(random);
        StringBuilder hex = new StringBuilder();
        for (byte b : random)
            hex.append(Character.forDigit(b >> 4 & 15, 16)).append(Character.forDigit(b & 15, 16));
        return hex.toString();
    }
}
