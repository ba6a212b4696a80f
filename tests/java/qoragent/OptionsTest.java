package qoragent;

import static org.junit.Assert.*;

import org.junit.Test;

public class OptionsTest {
    @Test
    public void valuesAreTaken() {
        String[][] rows = {
            {"loglevel=8", "loglevel", "8"},
            {"logfile=/a b/c=d.log", "logfile", "/a b/c=d.log"},
            {"vendor=DOV Systems\\, Inc.,version=1.6.0_11", "vendor", "DOV Systems, Inc."},
            {"jvmid=a\\\\b", "jvmid", "a\\b"},
        };
        for (String[] row : rows)
            assertEquals(row[0], row[2], Options.parse(row[0]).text(row[1]));
        assertFalse(Options.parse("relay=off").relay());
        assertEquals(
            100, Options.parse("osname=" + new String(new char[300]).replace('\0', 'x')).osName().length());
    }

    /** What an operator gets who asks for nothing; docs/operations.md has the same table. */
    @Test
    public void defaultsAreSafe() {
        String[] rows =
            ("loglevel=1 optlevel=0 maxbackoff=30 timeout=60 sigchain=0 webserver= logfile=stderr jvmid= "
             + "lockinfo=1 dbquery=0 sqlsize=4096 localquota=1 handquota=5 tiers= rules=default "
             + "stackqueried=1000 stackrecorded=300 forkdump=false relay=on bind=127.0.0.1 port=0")
                .split(" ");
        for (String row : rows)
            assertEquals(row, row.split("=")[0] + "=" + Options.parse("").text(row.split("=")[0]));
        String all = assertThrows(IllegalArgumentException.class, () -> Options.parse("?=")).getMessage();
        assertEquals("with vendor, version, osname", rows.length + 3,
                     all.replaceAll(".* are ", "").split(", ").length);
    }

    @Test
    public void badOptionsAreRefusedByName() {
        String[][] rows = {
            {"colour=1", "\"colour\""},           {"loglevel", "loglevel"},
            {"loglevel=x", "loglevel"},           {"port=65536", "port"},
            {"localquota=101", "localquota"},     {"relay=yes", "relay"},
            {"forkdump=1", "forkdump"},           {"port=1,port=1", "port"},
            {"vendor=DOV Systems, Inc.", "Inc."},
        };
        for (String[] row : rows) {
            String said =
                assertThrows(IllegalArgumentException.class, () -> Options.parse(row[0])).getMessage();
            assertTrue(row[0] + ": " + said, said.contains(row[1]));
        }
    }
}
