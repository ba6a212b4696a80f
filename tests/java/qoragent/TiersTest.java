package qoragent;

import static org.junit.Assert.*;

import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.zip.CRC32;
import org.junit.Test;

public class TiersTest {
    private static final String REQUEST = "516|NoProcessing|tierrules|";

    /** What arrives when the agent accepts it: the text, behind its checksum has been compared. */
    private static String sent(Tiers tiers) {
        List<String> requests = new ArrayList<>();
        assertNull(tiers.send(request -> {
            requests.add(request);
            return request.contains("|!|") ? "Tier rules in force: 1 lines" : "";
        }));
        StringBuilder text = new StringBuilder();
        for (String request : requests.subList(0, requests.size() - 1)) {
            assertTrue(request.startsWith(REQUEST + (text.length() == 0 ? "=|" : "+|")));
            assertTrue(request.getBytes(StandardCharsets.UTF_8).length <= 20480);
            text.append(request.substring(REQUEST.length() + 2).replace('\r', '\n'));
        }
        CRC32 crc = new CRC32();
        crc.update(text.toString().getBytes(StandardCharsets.UTF_8));
        assertEquals(REQUEST + "!|" + Long.toHexString(crc.getValue()), requests.get(requests.size() - 1));
        return text.toString();
    }

    @Test
    public void areTheJarsOwnOnesBehindThoseOfAFile() throws Exception {
        String shipped = sent(Tiers.of(""));
        assertTrue(shipped, shipped.contains("\nframe "));
        assertEquals("", sent(Tiers.of("none")));
        Path file = Files.createTempFile("qor", ".rules");
        StringBuilder own = new StringBuilder("# \u00e9\u20ac");
        for (int i = 0; i < 2000; i++)
            own.append("\nstate db own.\u20ac").append(i);
        Files.write(file, own.toString().replace("\n", "\r\n").getBytes(StandardCharsets.UTF_8));
        assertEquals(own + "\n" + shipped, sent(Tiers.of(file.toString())));
        Files.delete(file);
        assertEquals("no answer", Tiers.of("").send(request -> "no answer"));
        assertThrows(IllegalArgumentException.class, () -> Tiers.of("/nowhere"));
    }
}
