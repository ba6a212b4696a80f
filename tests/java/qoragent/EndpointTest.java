package qoragent;

import static org.junit.Assert.assertArrayEquals;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertNotEquals;
import static org.junit.Assert.assertTrue;
import static org.junit.Assert.fail;

import java.io.IOException;
import java.net.InetAddress;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import org.junit.Before;
import org.junit.Rule;
import org.junit.Test;
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
        Endpoint endpoint = new Endpoint(dir, uid, PID);
        endpoint.publish(LOOPBACK, 1234);
        assertEquals(0700, mode(dir));
        assertEquals(0600, mode(endpoint.file()));
        assertEquals(dir.resolve("4711.endpoint"), endpoint.file());
        assertTrue(endpoint.token(), endpoint.token().matches("[0-9a-f]{32}"));
        assertEquals("port=1234\ntoken=" + endpoint.token() + "\npid=4711\nversion=1\n",
                     read(endpoint.file()));
        assertArrayEquals("nothing else is left there", new String[] {"4711.endpoint"}, dir.toFile().list());

        Endpoint next = new Endpoint(dir, uid, PID);
        assertNotEquals(endpoint.token(), next.token());
        next.publish(InetAddress.getByName("10.1.2.3"), 5678);
        assertTrue(read(next.file()), read(next.file()).endsWith("\nbind=10.1.2.3\n"));
        endpoint.withdraw();
        assertTrue("another's file stays", read(next.file()).startsWith("port=5678\n"));
        next.withdraw();
        next.withdraw();
        assertFalse(Files.exists(next.file()));
    }

    @Test
    public void directoryMayInheritTheSetGroupBit() throws IOException {
        Files.setAttribute(folder.getRoot().toPath(), "unix:mode", 02700);
        Endpoint endpoint = new Endpoint(dir, uid, PID);
        endpoint.publish(LOOPBACK, 1);
        assertEquals(02700, mode(dir));
        assertTrue(endpoint.published());
    }

    @Test
    public void linkInPlaceOfTheFileIsReplacedNotFollowed() throws IOException {
        Path victim = folder.newFile("victim").toPath();
        Endpoint endpoint = new Endpoint(dir, uid, PID);
        endpoint.openDirectory();
        Files.createSymbolicLink(endpoint.file(), victim);
        endpoint.publish(LOOPBACK, 1);
        assertEquals("", read(victim));
        assertTrue(Files.isRegularFile(endpoint.file(), LinkOption.NOFOLLOW_LINKS));
    }

    private interface Trap {
        void lay() throws IOException;
    }

    private void refused(String what, int owner, Trap trap) throws IOException {
        trap.lay();
        try {
            new Endpoint(dir, owner, PID).publish(LOOPBACK, 1);
            fail(what + " was accepted");
        } catch (IOException e) {
            assertTrue(what + " gave: " + e.getMessage(), e.getMessage().startsWith(dir + " "));
        }
        if (Files.isDirectory(dir))
            assertEquals(what, 0, dir.toFile().list().length);
        Files.delete(dir);
    }

    private void makeDirectory(int mode) throws IOException {
        Files.createDirectory(dir);
        Files.setAttribute(dir, "unix:mode", mode);
    }

    @Test
    public void trapsInPlaceOfTheDirectoryAreRefused() throws IOException {
        Path good = folder.newFolder("good").toPath();
        Files.setPosixFilePermissions(good, PosixFilePermissions.fromString("rwx------"));
        refused("a link to a good directory", uid, () -> Files.createSymbolicLink(dir, good));
        refused("a link to nothing", uid, () -> Files.createSymbolicLink(dir, good.resolve("none")));
        refused("a file of the right mode", uid, () -> {
            Files.createFile(dir);
            Files.setAttribute(dir, "unix:mode", 0700);
        });
        refused("another's directory", uid + 1, () -> makeDirectory(0700));
        for (int mode : new int[] {0755, 0770, 0701, 0777, 01777, 02770, 0500})
            refused("mode " + Integer.toOctalString(mode), uid, () -> makeDirectory(mode));
        assertEquals(0, good.toFile().list().length);
    }
}
