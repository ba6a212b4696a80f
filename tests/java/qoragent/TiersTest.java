package qoragent;

import static org.junit.Assert.*;

import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import org.junit.Test;

public class TiersTest {
    private static final String REQUEST = "516|NoProcessing|tierrules|";

    /** A file's rules come first, in requests that the agent takes whole. */
    @Test
    public void areAFilesAndTheJars() throws Exception {
        Path file = Files.createTempFile("qor", ".rules");
        String own = "# " + new String(new char[30_000]).replace('\0', '\u20ac') + "\nstate db own.";
        Files.write(file, own.replace("\n", "\r\n").getBytes(StandardCharsets.UTF_8));
        StringBuilder sent = new StringBuilder();
        assertNull(Tiers.of(file.toString()).send(request -> {
            if (request.startsWith(REQUEST + "!|"))
                return "Tier rules in force: 1 lines";
            assertTrue(request.startsWith(REQUEST + (sent.length() == 0 ? "=|" : "+|")));
            assertTrue(request.getBytes(StandardCharsets.UTF_8).length <= 20480);
            sent.append(request.substring(REQUEST.length() + 2).replace('\r', '\n'));
            return "";
        }));
        Files.delete(file);
        assertEquals(own + "\n" + Tiers.shipped("tiers.rules"), sent.toString());
        assertThrows(IllegalArgumentException.class, () -> Tiers.of("/nowhere"));
    }
}
