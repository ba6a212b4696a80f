package qoragent;

import static org.junit.Assert.*;

import java.io.IOException;
import java.net.InetAddress;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.List;
import org.junit.Before;
import org.junit.Rule;
import org.junit.Test;
import org.junit.function.ThrowingRunnable;
import org.junit.rules.TemporaryFolder;

public class EndpointTest {
    private static final int PID = 4711;
    private static final InetAddress LOOPBACK = InetAddress.getLoopbackAddress();

    @Rule public final TemporaryFolder folder = new TemporaryFolder();
    private Path dir;
    private int uid;

    @Before
    public void look() throws IOException {
        dir = folder.getRoot().toPath().resolve("qoragent-1");
        uid = (Integer)Files.getAttribute(folder.getRoot().toPath(), "unix:uid");
    }

    private static int mode(Path path) throws IOException {
        return (Integer)Files.getAttribute(path, "unix:mode", LinkOption.NOFOLLOW_LINKS) & 07777;
    }

    private static String read(Path path) throws IOException {
        return new String(Files.readAllBytes(path), StandardCharsets.US_ASCII);
    }

    @Test
    public void fileTellsPortAndTokenToItsOwnerAlone() throws IOException {
        Files.setAttribute(folder.getRoot().toPath(), "unix:mode", 02700); // which the directory inherits
        Path victim = folder.newFile("victim").toPath();
        Endpoint endpoint = new Endpoint(dir, uid, PID);
        endpoint.openDirectory();
        Files.createSymbolicLink(endpoint.file(), victim); // replaced and not followed
        endpoint.publish(LOOPBACK, 1234);
        assertEquals("", read(victim));
        assertEquals(02700, mode(dir));
        assertEquals(0600, mode(endpoint.file()));
        assertEquals(dir.resolve("4711.endpoint"), endpoint.file());
        assertTrue(endpoint.token(), endpoint.token().matches("[0-9a-f]{32}"));
        assertEquals("port=1234\ntoken=" + endpoint.token() + "\npid=4711\nversion=1\npidns=" +
                         Files.readSymbolicLink(Paths.get("/proc/self/ns/pid")) + "\n",
                     read(endpoint.file()));

        Endpoint next = new Endpoint(dir, uid, PID);
        assertNotEquals(endpoint.token(), next.token());
        next.publish(InetAddress.getByName("10.1.2.3"), 5678);
        endpoint.withdraw();
        assertTrue("another's file stays", read(next.file()).contains("\nbind=10.1.2.3\n"));
        next.withdraw();
        assertFalse(Files.exists(next.file()));
    }

    private static void makeDirectory(Path path, int mode) throws IOException {
        Files.createDirectory(path);
        Files.setAttribute(path, "unix:mode", mode);
    }

    /** Nothing is written to what a stranger put there, and the file is in a directory beside it. */
    @Test
    public void trapsInPlaceOfTheDirectoryAreAvoided() throws Throwable {
        Path good = folder.getRoot().toPath().resolve("good");
        makeDirectory(good, 0700);
        List<ThrowingRunnable> traps = new ArrayList<>();
        traps.add(() -> makeDirectory(dir, 0700)); // another user's
        traps.add(() -> Files.createSymbolicLink(dir, good));
        traps.add(() -> Files.createFile(dir));
        traps.add(() -> makeDirectory(dir, 0701));
        for (int i = 0; i < traps.size(); i++) {
            traps.get(i).run();
            Endpoint endpoint = new Endpoint(dir, i == 0 ? uid + 1 : uid, PID);
            endpoint.publish(LOOPBACK, 1);
            Path other = endpoint.elsewhere();
            assertTrue(i + ": " + other, other.toString().matches(dir + "-\\d{8,}"));
            assertEquals(0700, mode(other));
            assertTrue(Files.exists(other.resolve("4711.endpoint")));
            if (Files.isDirectory(dir))
                assertEquals(0, dir.toFile().list().length);
            endpoint.withdraw();
            assertFalse("it leaves its directory", Files.exists(other));
            Files.delete(dir);
        }
    }
}
