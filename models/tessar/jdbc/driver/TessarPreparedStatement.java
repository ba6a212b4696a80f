package tessar.jdbc.driver;

/** A prepared statement; it is executed as its superclass does. */
public class TessarPreparedStatement extends TessarStatement {
    public TessarPreparedStatement(TessarConnection connection, String sql) { super(connection, sql); }
}
