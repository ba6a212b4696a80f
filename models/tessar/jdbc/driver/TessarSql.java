package tessar.jdbc.driver;

/** A statement's text, as it was given and as it is sent. */
public class TessarSql {
    String originalSql;

    public TessarSql(String sql) { originalSql = sql; }
}
