package qoragent;

import java.math.BigInteger;
import java.nio.charset.StandardCharsets;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;

/** Names for SQL statements. Called by name from native code. */
public final class DbUtil {
    private static final int DIGEST_BITS = 128;
    private static final int DIGITS = 13;
    private static final int BITS_PER_DIGIT = 5;

    private DbUtil() {}

    /**
     * A short name of a statement that is the same on every JVM: the leading 65 bits of the MD5 of its UTF-8
     * text, first bit first, as 13 digits of 5 bits from the alphabet 0 to 9, a to v.
     *
     * @return empty for null, and where the JVM has no MD5
     */
    public static String sqlText2sqlId(String sql) {
        if (sql == null)
            return "";
        try {
            byte[] digest = MessageDigest.getInstance("MD5").digest(sql.getBytes(StandardCharsets.UTF_8));
            BigInteger leading = new BigInteger(1, digest).shiftRight(DIGEST_BITS - DIGITS * BITS_PER_DIGIT);
            StringBuilder id = new StringBuilder(leading.toString(1 << BITS_PER_DIGIT));
            while (id.length() < DIGITS)
                id.insert(0, '0');
            return id.toString();
        } catch (NoSuchAlgorithmException e) {
            return "";
        }
    }
}
