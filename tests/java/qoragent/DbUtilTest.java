package qoragent;

import static org.junit.Assert.*;

import org.junit.Test;

public class DbUtilTest {
    /** The ids were computed by another program from the rule alone. */
    @Test
    public void idsAreTheLeadingBitsOfTheDigest() {
        String[][] rows = {
            {"", "qgeopmcf02p09"},
            {"SELECT name FROM person WHERE id = ?", "94nosl1pnadpd"},
            {"select 'Gr\u00f6\u00dfe \u20ac' from dual", "s00k8g1ug3msl"},
            {"select 831", "008equ10nnq37"},
        };
        for (String[] row : rows)
            assertEquals(row[0], row[1], DbUtil.sqlText2sqlId(row[0]));
        assertEquals("", DbUtil.sqlText2sqlId(null));
    }
}
